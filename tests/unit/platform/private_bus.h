// A private, system-bus-like dbus-daemon for one test, with python3-dbusmock
// templates on it. Every child it starts is killed when it goes.
#pragma once

#include <sys/types.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "platform/linux/system_bus.h"

namespace nightjar::testing {

class PrivateBus {
 public:
  // Starts the daemon; ok() tells whether it runs.
  PrivateBus();
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  bool ok() const { return daemon_ > 0 && !address_.empty(); }
  const std::string& address() const { return address_; }

  // Starts `/usr/bin/python3 -m dbusmock --system --template <name>` with the
  // JSON `parameters` and waits until it owns `busName`. Answers whether it did.
  bool startTemplate(const std::string& name, const std::string& busName,
                     const std::string& parameters = "{}");

  // Stops every template started so far.
  void stopTemplates();

  // A new client connection to the bus; attach it to a loop to receive.
  platform::linux_adapter::BusPtr connect() const;

 private:
  std::string directory_;
  std::string address_;
  pid_t daemon_ = -1;
  std::vector<pid_t> mocks_;
};

// Runs `event` until `done()` holds or `timeout` passed; answers done().
bool runUntil(sd_event* event, const std::function<bool()>& done,
              std::chrono::milliseconds timeout = std::chrono::seconds(10));

}  // namespace nightjar::testing
