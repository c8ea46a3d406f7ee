// The desktop's notification server (org.freedesktop.Notifications on the
// session bus): showing and closing notices, and what the person did with them.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace nightjar::agent {

struct NoticeContent {
  std::string summary;
  std::string body;
  // (key, label) pairs, in the order the buttons appear.
  std::vector<std::pair<std::string, std::string>> actions;
  bool critical = false;
  // Milliseconds; -1 leaves it to the server.
  std::int32_t expireMs = -1;
};

class NotificationServer {
 public:
  struct Handlers {
    std::function<void(std::uint32_t id, std::string_view key)> actionInvoked;
    std::function<void(std::uint32_t id)> closed;
    // A server took the name: the notices of the one before are gone.
    std::function<void()> serverStarted;
  };

  // `session` is borrowed and outlives the server.
  NotificationServer(sd_bus* session, Handlers handlers);
  NotificationServer(const NotificationServer&) = delete;
  NotificationServer& operator=(const NotificationServer&) = delete;
  ~NotificationServer();

  // Subscribes to the server's signals; false when the bus refuses.
  bool subscribe();
  // Shows a notice, in place of notice `replaces` when it is not 0. Answers the
  // server's id, 0 when there is no server to show it.
  std::uint32_t notify(const NoticeContent& content, std::uint32_t replaces);
  void close(std::uint32_t id);

 private:
  static int onActionInvoked(sd_bus_message* message, void* self, sd_bus_error*);
  static int onClosed(sd_bus_message* message, void* self, sd_bus_error*);
  static int onOwnerChanged(sd_bus_message* message, void* self, sd_bus_error*);
  int appendNotify(sd_bus_message* call, const NoticeContent& content, std::uint32_t replaces);

  sd_bus* session_;
  Handlers handlers_;
  std::vector<sd_bus_slot*> slots_;
};

}  // namespace nightjar::agent
