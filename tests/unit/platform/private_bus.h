// A private, system-bus-like dbus-daemon for one test, with python3-dbusmock
// templates on it, and the fixture of the tests that use one. Every child it
// starts is killed when it goes.
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
  PrivateBus();
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  bool ok() const { return daemon_ > 0 && !address_.empty(); }
  const std::string& address() const { return address_; }
  // Starts `python3 -m dbusmock --system --template <name>` with the JSON
  // `parameters` and answers whether it came to own `busName`.
  bool startTemplate(const std::string& name, const std::string& busName,
                     const std::string& parameters = "{}");
  void stopTemplates();
  // The calls of `method` that template `name` logged, oldest first, as their
  // arguments in the mock's words: `"text" 0 True [1, 2] {}`.
  std::vector<std::string> calls(const std::string& name, const std::string& method) const;
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

// Calls a method and waits for its answer; a failure fails the test.
template <typename... Args>
void callOrFail(sd_bus* bus, const char* service, const std::string& path, const char* interface,
                const char* member, const char* types, Args... args) {
  sd_bus_error error = SD_BUS_ERROR_NULL;
  if (sd_bus_call_method(bus, service, path.c_str(), interface, member, &error, nullptr, types,
                         args...) < 0)
    ADD_FAILURE() << member << ": " << (error.message ? error.message : "failed");
  sd_bus_error_free(&error);
}

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
