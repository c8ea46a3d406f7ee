#include "client/broadcasts.h"

#include <systemd/sd-bus.h>

#include <cstring>
#include <memory>

#include "plist/xml.h"

namespace nightjar::client {
namespace {

constexpr char kMatch[] =
    "type='signal',path='/quillon/nightjar',interface='quillon.nightjar',member='Notification'";
// A broadcast's user info is one event at most: far below this.
constexpr std::size_t kMaxInfoBytes = 1 << 20;

struct BusUnref {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};

int onSignal(sd_bus_message* message, void* userdata, sd_bus_error*) {
  const char* name = nullptr;
  const char* info = nullptr;
  if (sd_bus_message_read(message, "ss", &name, &info) < 0)
    return 0;  // not the daemon's shape: ignored
  const std::size_t length = strnlen(info, kMaxInfoBytes + 1);
  const plist::Value value =
      length == 0 || length > kMaxInfoBytes ? plist::Value() : plist::parseXml({info, length});
  (*static_cast<const BroadcastHandler*>(userdata))(name, value);
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

}  // namespace nightjar::client
