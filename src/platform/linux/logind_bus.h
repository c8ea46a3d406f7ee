// What the logind adapters share: names on the bus and inhibitor locks.
#pragma once

#include <systemd/sd-bus.h>

#include <functional>

#include "platform/linux/system_bus.h"

namespace nightjar::platform::linux_adapter::logind {

inline constexpr char kService[] = "org.freedesktop.login1";
inline constexpr char kManagerPath[] = "/org/freedesktop/login1";
inline constexpr char kManagerInterface[] = "org.freedesktop.login1.Manager";
inline constexpr char kSeatInterface[] = "org.freedesktop.login1.Seat";
inline constexpr char kSessionInterface[] = "org.freedesktop.login1.Session";
inline constexpr char kFirstSeatPath[] = "/org/freedesktop/login1/seat/seat0";

// Whether `signal` was broadcast. logind broadcasts its signals, and the bus
// delivers a broadcast to us only when it matches one of our rules, which name
// logind as the sender; a signal addressed to us alone may come from anyone.
bool isBroadcast(sd_bus_message* signal);

// An inhibitor lock: logind holds the inhibition while the descriptor is open.
class InhibitorLock {
 public:
  InhibitorLock() = default;
  explicit InhibitorLock(int fd) : fd_(fd) {}
  ~InhibitorLock() { release(); }
  InhibitorLock(InhibitorLock&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  InhibitorLock& operator=(InhibitorLock&& other) noexcept;
  InhibitorLock(const InhibitorLock&) = delete;
  InhibitorLock& operator=(const InhibitorLock&) = delete;

  bool held() const { return fd_ >= 0; }
  void release();

 private:
  int fd_ = -1;
};

// One Inhibit call; "who" is always "nightjard".
struct InhibitRequest {
  const char* what;  // "sleep", "idle", ...
  const char* why;
  const char* mode;  // "block" or "delay"
};

// Asks for a lock without blocking; `done` receives it (empty on failure) from
// the run loop. Dropping the answered slot cancels the call, and a lock that
// arrives afterwards is released at once. Answers nullptr, without calling
// `done`, when the call cannot be sent.
SlotPtr inhibitLater(sd_bus* bus, const InhibitRequest& request,
                     std::function<void(InhibitorLock)> done);

}  // namespace nightjar::platform::linux_adapter::logind
