#include "client/broadcasts.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include "plist/xml.h"

namespace nightjar::client {
namespace {

constexpr char kMatch[] =
    "type='signal',path='/quillon/nightjar',interface='quillon.nightjar',member='Notification'";
// A broadcast's user info is one event at most: far below this.
constexpr std::size_t kMaxInfoBytes = 1 << 20;
constexpr std::uint64_t kFirstPauseUsec = 1'000'000;
constexpr std::uint64_t kLongestPauseUsec = 30'000'000;

struct BusUnref {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};

void deliver(sd_bus_message* message, const BroadcastHandler& handler) {
  const char* name = nullptr;
  const char* info = nullptr;
  if (sd_bus_message_read(message, "ss", &name, &info) < 0)
    return;  // not the daemon's shape: ignored
  const std::size_t length = strnlen(info, kMaxInfoBytes + 1);
  const plist::Value value =
      length == 0 || length > kMaxInfoBytes ? plist::Value() : plist::parseXml({info, length});
  handler(name, value);
}

int onSignal(sd_bus_message* message, void* userdata, sd_bus_error*) {
  deliver(message, *static_cast<const BroadcastHandler*>(userdata));
  return 0;
}

}  // namespace

bool followBroadcasts(const BroadcastHandler& handler, const std::function<void()>& ready,
                      std::string& error) {
  sd_bus* raw = nullptr;
  int r = sd_bus_open_system(&raw);
  std::unique_ptr<sd_bus, BusUnref> bus(raw);
  if (r >= 0)
    r = sd_bus_add_match(bus.get(), nullptr, kMatch, onSignal,
                         const_cast<BroadcastHandler*>(&handler));
  if (r < 0) {
    error = std::string("cannot follow the system bus: ") + std::strerror(-r);
    return false;
  }
  ready();
  for (;;) {
    r = sd_bus_process(bus.get(), nullptr);
    if (r > 0)
      continue;
    if (r == 0)
      r = sd_bus_wait(bus.get(), UINT64_MAX);
    if (r < 0 && r != -EINTR) {
      error = std::string("the system bus went away: ") + std::strerror(-r);
      return false;
    }
  }
}

BroadcastFollower::BroadcastFollower(sd_event* loop, BroadcastHandler handler,
                                     std::function<void()> subscribed)
    : loop_(sd_event_ref(loop)),
      handler_(std::move(handler)),
      subscribed_(std::move(subscribed)),
      pauseUsec_(kFirstPauseUsec) {}

BroadcastFollower::~BroadcastFollower() {
  dropBus();
  sd_event_source_disable_unref(retry_);
  sd_event_unref(loop_);
}

void BroadcastFollower::start() {
  connect();
}

void BroadcastFollower::connect() {
  sd_bus* raw = nullptr;
  int r = sd_bus_open_system(&raw);
  bus_ = r >= 0 ? raw : nullptr;
  if (r >= 0)
    r = sd_bus_attach_event(bus_, loop_, SD_EVENT_PRIORITY_NORMAL);
  // A filter sees every message, the local "Disconnected" that sd-bus makes
  // when the bus goes away included; the match is answered asynchronously.
  if (r >= 0)
    r = sd_bus_add_filter(bus_, nullptr, onMessage, this);
  if (r >= 0)
    r = sd_bus_add_match_async(bus_, nullptr, kMatch, onBroadcast, onSubscribed, this);
  if (r >= 0)
    return;
  dropBus();
  retryIn(pauseUsec_);
}

void BroadcastFollower::dropBus() {
  up_ = false;
  if (bus_ != nullptr)
    sd_bus_flush_close_unref(std::exchange(bus_, nullptr));
}

// The next attempt; each failure doubles the pause up to its longest.
void BroadcastFollower::retryIn(std::uint64_t usec) {
  if (usec == pauseUsec_)
    pauseUsec_ = std::min(pauseUsec_ * 2, kLongestPauseUsec);
  if (retry_ == nullptr) {
    sd_event_add_time_relative(loop_, &retry_, CLOCK_MONOTONIC, usec, 0, onRetry, this);
    return;
  }
  sd_event_source_set_time_relative(retry_, usec);
  sd_event_source_set_enabled(retry_, SD_EVENT_ONESHOT);
}

int BroadcastFollower::onMessage(sd_bus_message* message, void* self, sd_bus_error*) {
  if (sd_bus_message_is_signal(message, "org.freedesktop.DBus.Local", "Disconnected") > 0) {
    auto* follower = static_cast<BroadcastFollower*>(self);
    follower->up_ = false;
    // The closed bus is released outside its own dispatch, and the first
    // attempt to reach the bus again is made at once.
    follower->retryIn(0);
  }
  return 0;
}

int BroadcastFollower::onBroadcast(sd_bus_message* message, void* self, sd_bus_error*) {
  deliver(message, static_cast<BroadcastFollower*>(self)->handler_);
  return 0;
}

int BroadcastFollower::onSubscribed(sd_bus_message* reply, void* self, sd_bus_error*) {
  auto* follower = static_cast<BroadcastFollower*>(self);
  if (sd_bus_message_is_method_error(reply, nullptr)) {
    follower->retryIn(follower->pauseUsec_);
    return 0;
  }
  follower->up_ = true;
  follower->pauseUsec_ = kFirstPauseUsec;
  if (follower->subscribed_)
    follower->subscribed_();
  return 0;
}

int BroadcastFollower::onRetry(sd_event_source*, std::uint64_t, void* self) {
  auto* follower = static_cast<BroadcastFollower*>(self);
  follower->dropBus();
  follower->connect();
  return 0;
}

}  // namespace nightjar::client
