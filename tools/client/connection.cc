#include "client/connection.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "plist/xml.h"
#include "wire/framing.h"

namespace nightjar::client {
namespace {

namespace framing = api::framing;

constexpr char kSocketPath[] = "var/tmp/quillon.nightjar/api";

std::string systemReason(int error) {
  return std::strerror(error);
}

}  // namespace

std::string daemonRoot() {
  const char* root = std::getenv("NIGHTJAR_ROOT");
  return (root != nullptr && *root != '\0') ? root : "/";
}

std::string socketPath() {
  std::string root = daemonRoot();
  if (root.back() != '/')
    root += '/';
  return root + kSocketPath;
}

std::optional<Connection> Connection::open(const std::string& path, std::string& error) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    error = "the socket path is too long: " + path;
    return std::nullopt;
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = "cannot make a socket: " + systemReason(errno);
    return std::nullopt;
  }
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0)
    return Connection(fd);
  const int cause = errno;
  ::close(fd);
  if (cause == ENOENT)
    error = "nightjard is not running (no socket at " + path + ")";
  else if (cause == ECONNREFUSED)
    error = "nightjard is not running (stale socket at " + path + ", nobody accepts on it)";
  else
    error = "cannot connect to nightjard at " + path + ": " + systemReason(cause);
  return std::nullopt;
}

Connection::Connection(Connection&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      nextIdentifier_(other.nextIdentifier_),
      buffered_(std::move(other.buffered_)) {}

Connection& Connection::operator=(Connection&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0)
      ::close(fd_);
    fd_ = std::exchange(other.fd_, -1);
    nextIdentifier_ = other.nextIdentifier_;
    buffered_ = std::move(other.buffered_);
  }
  return *this;
}

Connection::~Connection() {
  if (fd_ >= 0)
    ::close(fd_);
}

void Connection::setTimeout(int seconds) {
  const timeval limit{.tv_sec = seconds, .tv_usec = 0};
  ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

plist::Value Connection::call(const plist::Value& request, std::string& error) {
  const std::uint32_t identifier = nextIdentifier_++;
  const std::optional<framing::Message> message = framing::encodeRequest(identifier, request);
  if (!message) {
    error = "the request is too long to send";
    return {};
  }
  if (!writeAll(*message, error))
    return {};
  return readReply(identifier, error);
}

bool Connection::writeAll(const std::string& bytes, std::string& error) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0) {
      error = "cannot send to nightjard: " + systemReason(errno);
      return false;
    }
    sent += static_cast<std::size_t>(n);
  }
  return true;
}

plist::Value Connection::readReply(std::uint32_t identifier, std::string& error) {
  std::uint8_t chunk[65536];
  for (;;) {
    const framing::Frame frame = framing::decodeReply(buffered_.bytes());
    if (frame.status == framing::FrameStatus::Close) {
      error = "nightjard sent something that is not a reply";
      return {};
    }
    if (frame.status == framing::FrameStatus::Ready) {
      const plist::Value reply = plist::parseXml(
          frame.payload, {.maxBytes = framing::kDefaultMaxReplyLength, .maxDepth = 128});
      const bool ours = frame.identifier == identifier;
      buffered_.consume(frame.length);
      if (!ours)
        continue;  // a reply to an earlier request that was given up
      if (!reply)
        error = "nightjard's reply is not a property list";
      return reply;
    }
    const ssize_t n = ::recv(fd_, chunk, sizeof(chunk), 0);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0) {
      error = n == 0 ? "nightjard closed the connection"
                     : "cannot read from nightjard: " + systemReason(errno);
      return {};
    }
    buffered_.append({chunk, static_cast<std::size_t>(n)});
  }
}

}  // namespace nightjar::client
