// The daemon's one connection to the D-Bus system bus, shared by every adapter
// that speaks D-Bus (broadcasts, logind, polkit). It survives the bus going
// away: it reconnects with a bounded back-off and tells its clients when the
// bus, or one service on it, comes and goes, so that they subscribe again.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

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

class SystemBusConnection {
 public:
  // Something that lives on the bus, or on one service of it.
  class Client {
   public:
    virtual ~Client() = default;
    // Reachable on `bus` from now on: subscribe and take what is needed.
    virtual void up(sd_bus* bus) = 0;
    // Gone: drop every slot, lock and reference taken on the bus.
    virtual void down() = 0;
  };

  // Connects to the system bus (DBUS_SYSTEM_BUS_ADDRESS when set, else the
  // default socket) on `loop`. When that fails, and after every loss, it tries
  // again after 1 s, doubling up to 30 s. The first loss is logged, and so is
  // the connection that ends it.
  static std::unique_ptr<SystemBusConnection> create(runloop::RunLoop& loop);
  // Over a bus connected and attached to a loop elsewhere; never reconnects.
  static std::unique_ptr<SystemBusConnection> adopt(sd_bus* bus);
  ~SystemBusConnection();
  SystemBusConnection(const SystemBusConnection&) = delete;
  SystemBusConnection& operator=(const SystemBusConnection&) = delete;

  // The bus while connected, else null.
  sd_bus* bus() const { return bus_.get(); }

  // Calls client.up now when the bus (service empty) or `service` is there,
  // then down and up at each loss and return. The client must unwatch before
  // it goes. Run-loop thread only.
  void watch(Client& client, const std::string& service = {});
  void unwatch(Client& client);

 private:
  struct Service {
    SystemBusConnection* owner = nullptr;
    std::string name;
    bool owned = false;
    bool left = false;  // its owner left the bus, and that was logged
    SlotPtr match;
    std::vector<Client*> clients;
  };

  explicit SystemBusConnection(sd_event* event) : event_(event) {}
  bool connect();
  bool attach(BusPtr bus);
  void follow(Service& service);
  void setOwned(Service& service, bool owned);
  void lose();
  void retryLater();
  static int onDisconnected(sd_bus_message* message, void* userdata, sd_bus_error*);
  static int onOwnerChanged(sd_bus_message* message, void* userdata, sd_bus_error*);
  static int onRetry(sd_event_source* source, std::uint64_t usec, void* userdata);

  sd_event* event_;  // null for an adopted bus
  BusPtr bus_;
  BusPtr lost_;  // released from the retry, outside its own callbacks
  SlotPtr disconnected_;
  std::map<std::string, Service> services_;  // by name; "" is the bus itself
  sd_event_source* retry_ = nullptr;
  std::chrono::seconds backOff_{1};  // the wait before the next try
  std::uint64_t connectedAtUsec_ = 0;
  bool lossLogged_ = false;
};

}  // namespace nightjar::platform::linux_adapter
