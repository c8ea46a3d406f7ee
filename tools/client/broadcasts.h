// The daemon's broadcasts on the system bus (DBUS_SYSTEM_BUS_ADDRESS when
// set): signal "Notification" (name, user info as an XML property list) of
// interface "quillon.nightjar" on the path "/quillon/nightjar".
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <functional>
#include <string>

#include "plist/value.h"

namespace nightjar::client {

// Called once per broadcast; the user info is none when it is empty or not a
// property list.
using BroadcastHandler = std::function<void(const std::string& name, const plist::Value& info)>;

// Follows the broadcasts until the bus goes away or a signal ends the
// process. On failure answers false with a sentence in `error`; `ready` runs
// once the subscription is in place.
bool followBroadcasts(const BroadcastHandler& handler, const std::function<void()>& ready,
                      std::string& error);

// Follows the broadcasts from an sd-event loop without blocking it. When the
// bus cannot be reached or goes away, it tries again after a pause that
// doubles from 1 s up to 30 s; `subscribed` runs each time the subscription is
// in place again, the moment to read afresh what may have been missed.
class BroadcastFollower {
 public:
  BroadcastFollower(sd_event* loop, BroadcastHandler handler, std::function<void()> subscribed);
  BroadcastFollower(const BroadcastFollower&) = delete;
  BroadcastFollower& operator=(const BroadcastFollower&) = delete;
  ~BroadcastFollower();

  // The first attempt, at once.
  void start();
  // The connection while it is up (for calls of the owner's own), else null.
  sd_bus* bus() const { return up_ ? bus_ : nullptr; }

 private:
  static int onMessage(sd_bus_message* message, void* self, sd_bus_error*);
  static int onBroadcast(sd_bus_message* message, void* self, sd_bus_error*);
  static int onSubscribed(sd_bus_message* reply, void* self, sd_bus_error*);
  static int onRetry(sd_event_source*, std::uint64_t, void* self);
  void connect();
  void dropBus();
  void retryIn(std::uint64_t usec);

  sd_event* loop_;
  BroadcastHandler handler_;
  std::function<void()> subscribed_;
  sd_bus* bus_ = nullptr;
  sd_event_source* retry_ = nullptr;
  std::uint64_t pauseUsec_;
  bool up_ = false;
};

}  // namespace nightjar::client
