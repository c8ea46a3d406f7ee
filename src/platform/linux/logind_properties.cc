#include "platform/linux/logind_properties.h"

#include <cstring>
#include <string_view>

#include "platform/linux/logind_bus.h"

namespace nightjar::platform::linux_adapter::logind {
namespace {

// User names are far shorter on every system; anything longer is garbage.
constexpr std::size_t kMaxNameLength = 256;

bool isReply(sd_bus_message* reply, const char* signature) {
  return reply != nullptr && !sd_bus_message_is_method_error(reply, nullptr) &&
         sd_bus_message_has_signature(reply, signature) > 0;
}

// Reads a variant holding `contents` ("s", "(so)", ...) into `args`.
template <typename... Args>
bool readVariant(sd_bus_message* message, const char* contents, Args*... args) {
  return sd_bus_message_enter_container(message, 'v', contents) > 0 &&
         sd_bus_message_read(message, contents, args...) >= 0 &&
         sd_bus_message_exit_container(message) >= 0;
}

std::optional<std::string> readSessionPathVariant(sd_bus_message* message) {
  const char* id = nullptr;
  const char* path = nullptr;
  if (!readVariant(message, "(so)", &id, &path))
    return std::nullopt;
  return std::string(path);
}

// Calls `onEntry(key)` for each entry of an "a{sv}" at the read position;
// `onEntry` must consume the variant and answer false to give up. Answers false
// on malformed input.
template <typename OnEntry>
bool forEachProperty(sd_bus_message* message, OnEntry onEntry) {
  if (sd_bus_message_enter_container(message, 'a', "{sv}") <= 0)
    return false;
  for (;;) {
    const int r = sd_bus_message_enter_container(message, 'e', "sv");
    if (r < 0)
      return false;
    if (r == 0)
      break;
    const char* key = nullptr;
    if (sd_bus_message_read(message, "s", &key) < 0 || !onEntry(std::string_view(key)) ||
        sd_bus_message_exit_container(message) < 0) {
      return false;
    }
  }
  return sd_bus_message_exit_container(message) >= 0;
}

bool skipVariant(sd_bus_message* message) {
  return sd_bus_message_skip(message, "v") >= 0;
}

ConsoleSessionKind kindOfClass(std::string_view sessionClass) {
  // "user" and its variants ("user-early", ...) are people at the console;
  // "greeter", "lock-screen" and the rest are not.
  if (sessionClass == "user" || sessionClass.starts_with("user-"))
    return ConsoleSessionKind::User;
  return ConsoleSessionKind::Greeter;
}

}  // namespace

std::optional<ActiveSessionChange> readActiveSessionChange(sd_bus_message* signal) {
  if (sd_bus_message_has_signature(signal, "sa{sv}as") <= 0)
    return std::nullopt;
  const char* interface = nullptr;
  if (sd_bus_message_read(signal, "s", &interface) < 0 ||
      std::strcmp(interface, kSeatInterface) != 0) {
    return std::nullopt;
  }
  std::optional<ActiveSessionChange> change;
  const bool wellFormed = forEachProperty(signal, [&](std::string_view key) {
    if (key != "ActiveSession")
      return skipVariant(signal);
    std::optional<std::string> path = readSessionPathVariant(signal);
    if (!path)
      return false;
    change = ActiveSessionChange{.invalidated = false, .path = std::move(*path)};
    return true;
  });
  if (!wellFormed || sd_bus_message_enter_container(signal, 'a', "s") <= 0)
    return std::nullopt;
  const char* name = nullptr;
  int r = 0;
  while ((r = sd_bus_message_read(signal, "s", &name)) > 0) {
    if (std::strcmp(name, "ActiveSession") == 0 && !change) {
      change = ActiveSessionChange{.invalidated = true, .path = {}};
    }
  }
  if (r < 0)
    return std::nullopt;
  return change;
}

std::optional<std::string> readActiveSessionReply(sd_bus_message* reply) {
  if (!isReply(reply, "v"))
    return std::nullopt;
  return readSessionPathVariant(reply);
}

std::optional<ConsoleSession> readSessionReply(sd_bus_message* reply) {
  if (!isReply(reply, "a{sv}"))
    return std::nullopt;
  std::optional<std::string> name;
  std::optional<std::string> sessionClass;
  std::optional<uid_t> uid;
  const bool wellFormed = forEachProperty(reply, [&](std::string_view key) {
    const char* text = nullptr;
    if (key == "Name" || key == "Class") {
      if (!readVariant(reply, "s", &text))
        return false;
      (key == "Name" ? name : sessionClass) = text;
      return true;
    }
    if (key == "User") {
      std::uint32_t number = 0;
      const char* path = nullptr;
      if (!readVariant(reply, "(uo)", &number, &path))
        return false;
      uid = number;
      return true;
    }
    return skipVariant(reply);
  });
  if (!wellFormed || !name || !sessionClass || !uid || name->size() > kMaxNameLength) {
    return std::nullopt;
  }
  ConsoleSession session;
  session.kind = kindOfClass(*sessionClass);
  if (session.kind == ConsoleSessionKind::User) {
    session.name = std::move(*name);
    session.uid = *uid;
  }
  return session;
}

}  // namespace nightjar::platform::linux_adapter::logind
