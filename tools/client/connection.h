// One connection to the daemon's API socket: the socket's path under the
// root, connecting with a reason when it fails, and one request at a time with
// its reply.
#pragma once

#include <optional>
#include <string>

#include "plist/value.h"
#include "wire/framing_buffer.h"

namespace nightjar::client {

// "<root>/var/tmp/quillon.nightjar/api", the root taken from NIGHTJAR_ROOT
// ("/" when unset or empty).
std::string daemonRoot();
std::string socketPath();

class Connection {
 public:
  // Connects to `path`; on failure `error` holds a sentence: the daemon is not
  // running (no socket), the socket is stale (refused), or the system's reason.
  static std::optional<Connection> open(const std::string& path, std::string& error);

  Connection(Connection&& other) noexcept;
  Connection& operator=(Connection&& other) noexcept;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

  // Gives up sending or waiting for a reply after `seconds` (0: never, the
  // default), for a program that must not hang with the daemon.
  void setTimeout(int seconds);

  // Sends `request` and answers the parsed reply to it; none, with `error`
  // set, when it cannot be sent, the daemon closes, or the reply is not one.
  plist::Value call(const plist::Value& request, std::string& error);

 private:
  explicit Connection(int fd) : fd_(fd) {}
  bool writeAll(const std::string& bytes, std::string& error);
  plist::Value readReply(std::uint32_t identifier, std::string& error);

  int fd_ = -1;
  std::uint32_t nextIdentifier_ = 1;
  api::framing::ReadBuffer buffered_;
};

}  // namespace nightjar::client
