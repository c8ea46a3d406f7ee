#include "platform/linux/logind_terminal_broadcast.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <list>
#include <set>
#include <utility>
#include <vector>

#include "platform/linux/daemon_root.h"
#include "platform/linux/logind_bus.h"
#include "platform/linux/system_bus.h"

namespace nightjar::platform::linux_adapter {
namespace {

constexpr std::size_t kMaxTtyLength = 32;
constexpr std::size_t kMaxSessions = 1024;  // a longer answer is cut there

// Opened without blocking and written once: a terminal whose output is held
// (a stopped flow, a full buffer) loses the message rather than the loop its
// time, as wall(1) does.
void writeTerminal(const std::string& path, const std::string& text) {
  const int fd = open(path.c_str(), O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0)
    return;
  [[maybe_unused]] const ssize_t written = write(fd, text.data(), text.size());
  close(fd);
}

// The object paths in a ListSessions answer, a(susso).
std::vector<std::string> sessionPaths(sd_bus_message* reply) {
  std::vector<std::string> paths;
  if (sd_bus_message_is_method_error(reply, nullptr) ||
      sd_bus_message_enter_container(reply, SD_BUS_TYPE_ARRAY, "(susso)") < 0)
    return paths;
  const char* id = nullptr;
  uint32_t uid = 0;
  const char* user = nullptr;
  const char* seat = nullptr;
  const char* path = nullptr;
  while (paths.size() < kMaxSessions &&
         sd_bus_message_read(reply, "(susso)", &id, &uid, &user, &seat, &path) > 0)
    paths.emplace_back(path);
  return paths;
}

// One broadcast: the session list, then each session's TTY. It lives until
// its last call is answered or the adapter goes.
class LogindTerminalBroadcast;
struct Broadcast {
  LogindTerminalBroadcast* owner = nullptr;
  std::string text;
  std::set<std::string> written;  // each terminal once
  std::vector<SlotPtr> calls;
  std::size_t unanswered = 0;
  std::list<Broadcast>::iterator self;
};

class LogindTerminalBroadcast final : public TerminalBroadcast {
 public:
  LogindTerminalBroadcast(SystemBusConnection* connection, std::string root)
      : connection_(connection), root_(std::move(root)) {}
  ~LogindTerminalBroadcast() override {
    broadcasts_.clear();  // unanswered calls are dropped
  }

  void broadcast(const std::string& text) override {
    Broadcast& b = broadcasts_.emplace_back();
    b.owner = this;
    b.text = text;
    b.self = std::prev(broadcasts_.end());
    if (!call(b, logind::kManagerPath, logind::kManagerInterface, "ListSessions", onSessions,
              nullptr))
      broadcasts_.erase(b.self);
  }

 private:
  // Sends one call for `b` on the bus of the moment; false when it cannot be
  // sent (no bus while it reconnects included).
  bool call(Broadcast& b, const char* path, const char* interface, const char* member,
            sd_bus_message_handler_t handler, const char* property) {
    sd_bus* bus = connection_->bus();
    if (bus == nullptr)
      return false;
    sd_bus_slot* slot = nullptr;
    const int r = property == nullptr ? sd_bus_call_method_async(bus, &slot, logind::kService, path,
                                                                 interface, member, handler, &b, "")
                                      : sd_bus_call_method_async(
                                            bus, &slot, logind::kService, path, interface, member,
                                            handler, &b, "ss", logind::kSessionInterface, property);
    if (r < 0)
      return false;
    b.calls.emplace_back(slot);
    ++b.unanswered;
    return true;
  }

  // sd-bus keeps the answered slot alive while its callback runs, so the
  // broadcast may be erased here.
  static void answered(Broadcast& b) {
    if (--b.unanswered == 0)
      b.owner->broadcasts_.erase(b.self);
  }

  static int onSessions(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    auto& b = *static_cast<Broadcast*>(userdata);
    for (const std::string& path : sessionPaths(reply))
      b.owner->call(b, path.c_str(), "org.freedesktop.DBus.Properties", "Get", onTty, "TTY");
    answered(b);
    return 0;
  }

  static int onTty(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    auto& b = *static_cast<Broadcast*>(userdata);
    const char* tty = nullptr;
    if (!sd_bus_message_is_method_error(reply, nullptr) &&
        sd_bus_message_read(reply, "v", "s", &tty) > 0) {
      if (std::optional<std::string> path = terminalDevicePath(b.owner->root_, tty);
          path && b.written.insert(*path).second)
        writeTerminal(*path, b.text);
    }
    answered(b);
    return 0;
  }

  SystemBusConnection* connection_;
  std::string root_;
  std::list<Broadcast> broadcasts_;
};

}  // namespace

std::optional<std::string> terminalDevicePath(std::string_view root, std::string_view tty) {
  // Letters, digits and inner single slashes only: no "..", no absolute name.
  const bool plain = !tty.empty() && tty.size() <= kMaxTtyLength && tty.front() != '/' &&
                     tty.back() != '/' && tty.find("//") == std::string_view::npos &&
                     tty.find_first_not_of(
                         "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                         "0123456789/") == std::string_view::npos;
  if (!plain)
    return std::nullopt;
  return underRoot(root, "/dev/" + std::string(tty));
}

std::unique_ptr<TerminalBroadcast> makeLogindTerminalBroadcast(SystemBusConnection* bus,
                                                               std::string root) {
  if (bus == nullptr)
    return nullptr;
  return std::make_unique<LogindTerminalBroadcast>(bus, std::move(root));
}

}  // namespace nightjar::platform::linux_adapter
