// What gracestop and perch share: the system bus, calls that report their own
// failure on standard error, and the exit codes.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>
#include <string>

namespace nightjar::tools {

inline constexpr int kExitDone = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

inline constexpr char kLogindService[] = "org.freedesktop.login1";
inline constexpr char kLogindPath[] = "/org/freedesktop/login1";
inline constexpr char kLogindManager[] = "org.freedesktop.login1.Manager";

struct BusUnref {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using BusPtr = std::unique_ptr<sd_bus, BusUnref>;

struct MessageUnref {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using MessagePtr = std::unique_ptr<sd_bus_message, MessageUnref>;

// An sd_bus_error that frees itself.
struct BusError {
  BusError() = default;
  ~BusError() { sd_bus_error_free(&error); }
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;
  sd_bus_error error = SD_BUS_ERROR_NULL;
};

// The system bus (DBUS_SYSTEM_BUS_ADDRESS when set), with calls bounded in
// time. On failure prints "<program>: cannot connect to the system bus: ..."
// and answers nullptr.
BusPtr openSystemBus(const char* program);

// True when `error` says that nobody owns the called service.
bool serviceMissing(const sd_bus_error& error);

// Prints why `what` failed: "<program>: cannot <what>: <message> (<name>)",
// or that `service` is not running when nobody owns it.
void reportFailure(const char* program, const std::string& what, const char* service,
                   const sd_bus_error& error, int r);

}  // namespace nightjar::tools
