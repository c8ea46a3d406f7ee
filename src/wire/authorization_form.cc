#include "wire/authorization_form.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>

namespace nightjar::api {
namespace {

constexpr char kMagic[4] = {'N', 'J', 'A', 'Z'};
// A stat line is a few hundred bytes; the command name in it is at most 64.
constexpr std::size_t kMaxStatBytes = 4096;
// Field 22 is the 20th after the command name, which ends the second field.
constexpr int kStartTimeFieldAfterName = 20;

std::uint64_t readLittleEndian(const std::uint8_t* bytes, std::size_t size) {
  std::uint64_t value = 0;
  for (std::size_t i = size; i-- > 0;)
    value = (value << 8) | bytes[i];
  return value;
}

void writeLittleEndian(std::uint8_t* bytes, std::size_t size, std::uint64_t value) {
  for (std::size_t i = 0; i < size; ++i, value >>= 8)
    bytes[i] = static_cast<std::uint8_t>(value & 0xff);
}

std::optional<std::string> readSmallFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return std::nullopt;
  std::string text(kMaxStatBytes, '\0');
  ssize_t n;
  do {
    n = ::read(fd, text.data(), text.size());
  } while (n < 0 && errno == EINTR);
  ::close(fd);
  if (n <= 0 || static_cast<std::size_t>(n) == text.size())
    return std::nullopt;
  text.resize(static_cast<std::size_t>(n));
  return text;
}

// The command name may hold spaces and parentheses, so the fields after it
// are found from the last ')'.
std::optional<std::uint64_t> startTimeOfStatLine(std::string_view line) {
  const std::size_t nameEnd = line.rfind(')');
  if (nameEnd == std::string_view::npos)
    return std::nullopt;
  std::string_view rest = line.substr(nameEnd + 1);
  std::string_view field;
  for (int i = 0; i < kStartTimeFieldAfterName; ++i) {
    if (rest.empty() || rest.front() != ' ')
      return std::nullopt;
    rest.remove_prefix(1);
    field = rest.substr(0, rest.find_first_of(" \n"));
    rest.remove_prefix(field.size());
  }
  std::uint64_t value = 0;
  auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), value);
  if (field.empty() || error != std::errc() || end != field.data() + field.size())
    return std::nullopt;
  return value;
}

}  // namespace

std::optional<ExternalForm> parseExternalForm(const plist::Value& value) {
  const plist::Bytes* bytes = value.asData();
  if (bytes == nullptr || bytes->size() != kExternalFormBytes)
    return std::nullopt;
  const std::uint8_t* b = bytes->data();
  if (std::memcmp(b, kMagic, sizeof kMagic) != 0 ||
      readLittleEndian(b + 4, 4) != kExternalFormVersion || readLittleEndian(b + 24, 8) != 0) {
    return std::nullopt;
  }
  return ExternalForm{.pid = static_cast<std::uint32_t>(readLittleEndian(b + 8, 4)),
                      .uid = static_cast<std::uint32_t>(readLittleEndian(b + 12, 4)),
                      .startTime = readLittleEndian(b + 16, 8)};
}

plist::Bytes encodeExternalForm(const ExternalForm& form) {
  plist::Bytes bytes(kExternalFormBytes, 0);
  std::memcpy(bytes.data(), kMagic, sizeof kMagic);
  writeLittleEndian(bytes.data() + 4, 4, kExternalFormVersion);
  writeLittleEndian(bytes.data() + 8, 4, form.pid);
  writeLittleEndian(bytes.data() + 12, 4, form.uid);
  writeLittleEndian(bytes.data() + 16, 8, form.startTime);
  return bytes;
}

std::optional<std::uint64_t> processStartTime(const std::string& procRoot, pid_t pid) {
  if (pid <= 0)
    return std::nullopt;
  std::optional<std::string> line = readSmallFile(procRoot + "/" + std::to_string(pid) + "/stat");
  if (!line)
    return std::nullopt;
  return startTimeOfStatLine(*line);
}

std::optional<ExternalForm> formOfPeer(const plist::Value& value,
                                       const platform::PeerCredentials& peer,
                                       const std::string& procRoot) {
  std::optional<ExternalForm> form = parseExternalForm(value);
  if (!form || peer.pid <= 0 || form->pid != static_cast<std::uint32_t>(peer.pid) ||
      form->uid != static_cast<std::uint32_t>(peer.uid)) {
    return std::nullopt;
  }
  std::optional<std::uint64_t> started = processStartTime(procRoot, peer.pid);
  if (!started || *started != form->startTime)
    return std::nullopt;
  return form;
}

}  // namespace nightjar::api
