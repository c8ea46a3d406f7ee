// The desktop agent: each warned event of the daemon's pending list is one
// notice with its delay choices and Cancel; an answer goes back to the daemon
// as a request. The daemon's list is the only state: the notices follow it,
// read afresh at start, on each change, when the daemon or the system bus
// comes back, and shown again when the notification server restarts.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/broadcasts.h"
#include "client/connection.h"
#include "notification_server.h"
#include "plist/value.h"

namespace nightjar::agent {

class Agent {
 public:
  // `session` is borrowed and outlives the agent; `delays` in seconds.
  Agent(sd_event* loop, sd_bus* session, std::vector<long> delays);

  // Subscribes to both buses; false when the session bus refuses.
  bool start();

 private:
  // One warning on screen. `warnedAt` (the daemon's "metadatanotified") tells
  // a warning issued again from the one already shown.
  struct Notice {
    plist::Value event;
    double warnedAt = 0;
    std::uint32_t id = 0;    // the server's; 0 while not on screen
    bool dismissed = false;  // closed by the person: not shown again
    bool last = false;       // the action has begun: no answer is possible
  };

  void onBroadcast(const std::string& name, const plist::Value& info);
  void refresh();
  void follow(const plist::Value& pending);
  void show(Notice& notice, std::uint32_t replaces);
  void showLast(const plist::Value& event);
  void onAction(std::uint32_t id, std::string_view key);
  void answer(const std::string& uniqueid, std::string_view key);
  void onClosed(std::uint32_t id);
  void onServerStarted();
  plist::Value call(std::string_view request, const plist::Value& parameter);

  NotificationServer server_;
  client::BroadcastFollower follower_;
  std::vector<long> delays_;
  std::optional<client::Connection> connection_;
  std::map<std::string, Notice> notices_;  // by the event's "uniqueid"
};

// Prints "nightjar-agent: <line>" on standard error.
void complain(std::string_view line);

}  // namespace nightjar::agent
