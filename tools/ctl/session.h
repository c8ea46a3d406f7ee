// One run of nightjarctl against the daemon: the connection, made on first
// use; the write rights, asked for once each; every request's failure printed
// as sentences on standard error.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "client/connection.h"
#include "plist/value.h"

namespace nightjar::ctl {

inline constexpr int kExitOk = 0;
inline constexpr int kExitRefused = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitWouldChange = 3;

class Session {
 public:
  explicit Session(bool askPassword) : askPassword_(askPassword) {}

  // Sends `request`; true on "status" 200, with its "response" in `response`.
  // Otherwise prints why (prefixed by `subject` when given) and answers false.
  bool call(std::string_view request, const plist::Value& parameter = {},
            plist::Value* response = nullptr, std::string_view subject = {});
  // True when `reply` is a success; otherwise prints why and answers false.
  bool report(std::string_view request, const plist::Value& reply, plist::Value* response = nullptr,
              std::string_view subject = {});
  // The whole reply, whatever it says; none (after printing why) when nothing
  // came back.
  plist::Value exchange(std::string_view request, const plist::Value& parameter);

 private:
  bool connect();

  bool askPassword_;
  std::optional<client::Connection> connection_;
  plist::Value authorization_;
  std::set<std::string> asked_;
};

// Prints "nightjarctl: <line>" on standard error.
void complain(std::string_view line);

}  // namespace nightjar::ctl
