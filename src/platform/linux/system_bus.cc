#include "platform/linux/system_bus.h"

namespace nightjar::platform::linux_adapter {

BusPtr connectSystemBus(runloop::RunLoop& loop) {
  sd_bus* raw = nullptr;
  // sd_bus_open_system honours DBUS_SYSTEM_BUS_ADDRESS itself.
  if (sd_bus_open_system(&raw) < 0) {
    return nullptr;
  }
  BusPtr bus(raw);
  if (sd_bus_attach_event(bus.get(), loop.event(), SD_EVENT_PRIORITY_NORMAL) < 0) {
    return nullptr;
  }
  // The daemon broadcasts after its loop has exited ("socket.closed"), so the
  // connection must outlive the loop's exit; closing it is the owner's job.
  sd_bus_set_close_on_exit(bus.get(), 0);
  return bus;
}

}  // namespace nightjar::platform::linux_adapter
