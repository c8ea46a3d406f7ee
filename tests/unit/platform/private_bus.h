// A private, system-bus-like dbus-daemon for one test, with python3-dbusmock
// templates on it. Every child it starts is killed when it goes.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/system_bus.h"
#include "runloop/run_loop.h"

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

// A private bus, a run loop, the adapter's connection (`client_`, attached to
// the loop; `connection_` is the adapter's view of it) and the test's own
// (`driver_`).
class BusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    loop_ = runloop::RunLoop::create();
    client_ = bus_.connect();
    driver_ = bus_.connect();
    ASSERT_TRUE(loop_ && client_ && driver_);
    ASSERT_GE(sd_bus_attach_event(client_.get(), loop_->event(), SD_EVENT_PRIORITY_NORMAL), 0);
    connection_ = platform::linux_adapter::SystemBusConnection::adopt(client_.get());
  }
  bool pump(const std::function<bool()>& done,
            std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    return runUntil(loop_->event(), done, timeout);
  }

  PrivateBus bus_;
  std::unique_ptr<runloop::RunLoop> loop_;
  platform::linux_adapter::BusPtr client_;
  platform::linux_adapter::BusPtr driver_;
  std::unique_ptr<platform::linux_adapter::SystemBusConnection> connection_;
};

}  // namespace nightjar::testing
