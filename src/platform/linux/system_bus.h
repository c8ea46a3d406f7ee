// The daemon's one connection to the D-Bus system bus, shared by every adapter
// that speaks D-Bus (broadcasts, logind, polkit).
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

#include "runloop/run_loop.h"

namespace nightjar::platform::linux_adapter {

struct BusUnref {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using BusPtr = std::unique_ptr<sd_bus, BusUnref>;

struct SlotUnref {
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using SlotPtr = std::unique_ptr<sd_bus_slot, SlotUnref>;

// Connects to the system bus (DBUS_SYSTEM_BUS_ADDRESS when set, else the
// default socket) and attaches it to the run loop. Answers nullptr when no bus
// can be reached; the daemon then runs without every bus facility.
BusPtr connectSystemBus(runloop::RunLoop& loop);

}  // namespace nightjar::platform::linux_adapter
