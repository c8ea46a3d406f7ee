// Drives python3-dbusmock's logind template on a PrivateBus, and a fixture
// with a run loop and a client connection for the adapter under test.
#pragma once

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "platform/private_bus.h"
#include "runloop/run_loop.h"

namespace nightjar::testing::logind_mock {

inline constexpr char kService[] = "org.freedesktop.login1";
inline constexpr char kManager[] = "/org/freedesktop/login1";
inline constexpr char kMock[] = "org.freedesktop.DBus.Mock";
inline constexpr char kProperties[] = "org.freedesktop.DBus.Properties";

inline std::string seatPath(const std::string& seat) {
  return "/org/freedesktop/login1/seat/" + seat;
}
inline std::string sessionPath(const std::string& id) {
  return id.empty() ? "/" : "/org/freedesktop/login1/session/" + id;
}

// Calls the mock and waits for its answer; a failure fails the test.
template <typename... Args>
void call(sd_bus* bus, const std::string& path, const char* interface, const char* member,
          const char* types, Args... args) {
  sd_bus_error error = SD_BUS_ERROR_NULL;
  if (sd_bus_call_method(bus, kService, path.c_str(), interface, member, &error, nullptr, types,
                         args...) < 0) {
    ADD_FAILURE() << member << ": " << (error.message ? error.message : "failed");
  }
  sd_bus_error_free(&error);
}

inline void addSeat(sd_bus* bus, const char* seat) {
  call(bus, kManager, kMock, "AddSeat", "s", seat);
}
// An active session of class "user"; the mock makes it its seat's active one.
inline void addSession(sd_bus* bus, const char* id, const char* seat, uid_t uid, const char* user) {
  call(bus, kManager, kMock, "AddSession", "ssusb", id, seat, uid, user, 1);
}
// Makes session `id` (none when empty) the active one of seat0.
inline void activate(sd_bus* bus, const std::string& id) {
  call(bus, seatPath("seat0"), kProperties, "Set", "ssv", "org.freedesktop.login1.Seat",
       "ActiveSession", "(so)", id.c_str(), sessionPath(id).c_str());
}
inline void emitPrepareForSleep(sd_bus* bus, bool start) {
  call(bus, kManager, kMock, "EmitSignal", "sssav", "org.freedesktop.login1.Manager",
       "PrepareForSleep", "b", 1, "b", static_cast<int>(start));
}

struct Inhibitor {
  std::string what, who, why, mode;
  friend bool operator==(const Inhibitor&, const Inhibitor&) = default;
};

// How many inhibitors equal to `wanted` logind lists, asked through `bus`.
inline long countInhibitors(sd_bus* bus, const Inhibitor& wanted) {
  sd_bus_message* reply = nullptr;
  if (sd_bus_call_method(bus, kService, kManager, "org.freedesktop.login1.Manager",
                         "ListInhibitors", nullptr, &reply, "") < 0) {
    ADD_FAILURE() << "ListInhibitors failed";
    return -1;
  }
  std::vector<Inhibitor> all;
  const char *what, *who, *why, *mode;
  std::uint32_t uid, pid;
  sd_bus_message_enter_container(reply, 'a', "(ssssuu)");
  while (sd_bus_message_read(reply, "(ssssuu)", &what, &who, &why, &mode, &uid, &pid) > 0) {
    all.push_back({what, who, why, mode});
  }
  sd_bus_message_unref(reply);
  return std::count(all.begin(), all.end(), wanted);
}

// Sends a signal from `from` to `to`'s connection alone, as any local process
// could: no adapter may take it for logind's.
template <typename... Args>
void sendForgedSignal(sd_bus* from, sd_bus* to, const std::string& path, const char* interface,
                      const char* member, const char* types, Args... args) {
  const char* destination = nullptr;
  sd_bus_message* signal = nullptr;
  ASSERT_GE(sd_bus_get_unique_name(to, &destination), 0);
  ASSERT_GE(sd_bus_message_new_signal(from, &signal, path.c_str(), interface, member), 0);
  EXPECT_GE(sd_bus_message_set_destination(signal, destination), 0);
  EXPECT_GE(sd_bus_message_append(signal, types, args...), 0);
  EXPECT_GE(sd_bus_send(from, signal, nullptr), 0);
  sd_bus_message_unref(signal);
}

// Returns once `client` has handled every message sent to it so far, and
// logind's answers to the calls that those messages made it send. Each round:
// the bus has routed all that `driver` sent once it answers the driver; logind
// has answered all that `client` asked once it answers the client's ping; then
// the client processes what it holds.
inline void settle(sd_bus* driver, sd_bus* client) {
  for (int round = 0; round < 2; ++round) {
    ASSERT_GE(sd_bus_call_method(driver, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                 "org.freedesktop.DBus", "GetId", nullptr, nullptr, ""),
              0);
    ASSERT_GE(sd_bus_call_method(client, kService, kManager, "org.freedesktop.DBus.Peer", "Ping",
                                 nullptr, nullptr, ""),
              0);
    while (sd_bus_process(client, nullptr) > 0) {
    }
  }
}

// A private bus with logind's mock, a run loop, the adapter's connection
// (`client_`, attached to the loop) and the test's own (`driver_`).
class LogindTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus_.startTemplate("logind", kService));
    loop_ = runloop::RunLoop::create();
    client_ = bus_.connect();
    driver_ = bus_.connect();
    ASSERT_TRUE(loop_ && client_ && driver_);
    ASSERT_GE(sd_bus_attach_event(client_.get(), loop_->event(), SD_EVENT_PRIORITY_NORMAL), 0);
    connection_ = platform::linux_adapter::SystemBusConnection::adopt(client_.get());
  }

  bool pump(const std::function<bool()>& done) { return runUntil(loop_->event(), done); }

  PrivateBus bus_;
  std::unique_ptr<runloop::RunLoop> loop_;
  platform::linux_adapter::BusPtr client_;
  platform::linux_adapter::BusPtr driver_;
  // The adapter's view of `client_`.
  std::unique_ptr<platform::linux_adapter::SystemBusConnection> connection_;
};

}  // namespace nightjar::testing::logind_mock
