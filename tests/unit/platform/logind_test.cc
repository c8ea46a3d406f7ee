// The logind adapters against python3-dbusmock's logind template on a private
// bus: sleep and wake, the sleep guard, the console user, the idle hint and
// Suspend.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "fakes/fake_timer.h"
#include "platform/linux/logind_console_user_source.h"
#include "platform/linux/logind_idle_time_source.h"
#include "platform/linux/logind_power_source.h"
#include "platform/linux/logind_sleep_guard.h"
#include "platform/linux/logind_system_sleep.h"
#include "platform/private_bus.h"

namespace nightjar::platform::linux_adapter {
namespace {

using ::testing::ElementsAre;

constexpr char kService[] = "org.freedesktop.login1";
constexpr char kManager[] = "/org/freedesktop/login1";
constexpr char kManagerInterface[] = "org.freedesktop.login1.Manager";
constexpr char kMock[] = "org.freedesktop.DBus.Mock";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
// 2026-01-01 00:00:00 UTC, in microseconds since the epoch.
constexpr std::uint64_t kNowUsec = 1767225600ull * 1000000;

const std::string kSeat0 = "/org/freedesktop/login1/seat/seat0";
std::string sessionPath(const std::string& id) {
  return id.empty() ? "/" : "/org/freedesktop/login1/session/" + id;
}

// An inhibitor as logind lists it: what, who, why and mode.
const std::string kSleepDelay = "sleep,nightjard,Announcing sleep to scheduled events,delay";
const std::string kIdleBlock = "idle,nightjard,Performing a scheduled event,block";

// How many inhibitors logind lists as `wanted`, asked through `bus`.
long countInhibitors(sd_bus* bus, const std::string& wanted) {
  sd_bus_message* reply = nullptr;
  long count = -1;
  if (sd_bus_call_method(bus, kService, kManager, kManagerInterface, "ListInhibitors", nullptr,
                         &reply, "") >= 0 &&
      sd_bus_message_enter_container(reply, 'a', "(ssssuu)") >= 0) {
    const char *what, *who, *why, *mode;
    std::uint32_t uid, pid;
    for (count = 0;
         sd_bus_message_read(reply, "(ssssuu)", &what, &who, &why, &mode, &uid, &pid) > 0;)
      count += std::string(what) + ',' + who + ',' + why + ',' + mode == wanted;
  }
  sd_bus_message_unref(reply);
  return count;
}

// logind's mock on the bus, and what the adapters under test report.
class LogindTest : public testing::BusTest {
 protected:
  void SetUp() override {
    BusTest::SetUp();
    ASSERT_TRUE(bus_.startTemplate("logind", kService));
  }

  template <typename... Args>
  void call(const std::string& path, const char* interface, const char* member, Args... args) {
    testing::callOrFail(driver_.get(), kService, path, interface, member, args...);
  }
  long held(const std::string& inhibitor) { return countInhibitors(driver_.get(), inhibitor); }
  // Returns once the adapters have handled all sent to them so far and
  // logind's answers to the calls that this made them send: the bus has routed
  // all that `driver_` sent once it answers it, logind all that `client_` asked
  // once it answers it.
  void settle() {
    for (int round = 0; round < 2; ++round) {
      ASSERT_GE(sd_bus_call_method(driver_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                   "org.freedesktop.DBus", "GetId", nullptr, nullptr, ""),
                0);
      ASSERT_GE(sd_bus_call_method(client_.get(), kService, kManager, "org.freedesktop.DBus.Peer",
                                   "Ping", nullptr, nullptr, ""),
                0);
      while (sd_bus_process(client_.get(), nullptr) > 0) {
      }
    }
  }
  // Sends a signal to the adapters' connection alone, as any local process
  // could: no adapter may take it for logind's.
  template <typename... Args>
  void sendForgedSignal(const std::string& path, const char* interface, const char* member,
                        const char* types, Args... args) {
    const char* destination = nullptr;
    sd_bus_message* signal = nullptr;
    ASSERT_GE(sd_bus_get_unique_name(client_.get(), &destination), 0);
    ASSERT_GE(sd_bus_message_new_signal(driver_.get(), &signal, path.c_str(), interface, member),
              0);
    EXPECT_GE(sd_bus_message_set_destination(signal, destination), 0);
    EXPECT_GE(sd_bus_message_append(signal, types, args...), 0);
    EXPECT_GE(sd_bus_send(driver_.get(), signal, nullptr), 0);
    sd_bus_message_unref(signal);
  }
  // An active session of class "user"; the mock makes it its seat's active one.
  void addSession(const char* id, const char* seat, uid_t uid, const char* user) {
    call(kManager, kMock, "AddSession", "ssusb", id, seat, uid, user, 1);
  }
  // Makes session `id` (none when empty) the active one of seat0.
  void activate(const std::string& id) {
    call(kSeat0, kProperties, "Set", "ssv", "org.freedesktop.login1.Seat", "ActiveSession", "(so)",
         id.c_str(), sessionPath(id).c_str());
  }
  void emitPrepareForSleep(bool start) {
    call(kManager, kMock, "EmitSignal", "sssav", kManagerInterface, "PrepareForSleep", "b", 1, "b",
         static_cast<int>(start));
  }
  // Makes logind's `method` (of signature `in`) fail with the D-Bus error `name`.
  void refuse(const char* method, const char* in, const char* out, const std::string& name) {
    const std::string code = "raise dbus.exceptions.DBusException('refused', name='" + name + "')";
    call(kManager, kMock, "AddMethod", "sssss", kManagerInterface, method, in, out, code.c_str());
  }

  void startPower() {
    power_ = makeLogindPowerSource(connection_.get());
    ASSERT_NE(power_, nullptr);
    power_->setHandlers({.willSleep =
                             [this] {
                               ++sleeps_;
                               delayHeldWhileSleeping_ = held(kSleepDelay) == 1;
                             },
                         .didWake = [this] { ++wakes_; }});
  }
  void startConsole() {
    console_ = makeLogindConsoleUserSource(connection_.get());
    ASSERT_NE(console_, nullptr);
    console_->setChangeHandler([this](const ConsoleSession& s) { reports_.push_back(s); });
  }
  bool waitForReports(std::size_t count) {
    return pump([&] { return reports_.size() >= count; });
  }
  // Asks `sleep` to suspend and answers its error number.
  int suspend(SystemSleep& sleep) {
    int answer = -1;
    sleep.sleepNow([&](int error) { answer = error; });
    EXPECT_EQ(answer, -1);  // the answer comes from the loop
    EXPECT_TRUE(pump([&] { return answer != -1; }));
    return answer;
  }

  std::unique_ptr<PowerSource> power_;
  int sleeps_ = 0;
  int wakes_ = 0;
  bool delayHeldWhileSleeping_ = false;
  std::unique_ptr<ConsoleUserSource> console_;
  std::vector<ConsoleSession> reports_;
};

TEST_F(LogindTest, DelayLockHoldsSleepUntilTheHandlerReturnedAndForgeriesAreIgnored) {
  startPower();
  ASSERT_TRUE(pump([&] { return held(kSleepDelay) == 1; }));
  sendForgedSignal(kManager, kManagerInterface, "PrepareForSleep", "b", 1);
  emitPrepareForSleep(/*start=*/true);  // arrives after the forgery
  ASSERT_TRUE(pump([&] { return sleeps_ == 1; }));
  EXPECT_TRUE(delayHeldWhileSleeping_);
  EXPECT_TRUE(pump([&] { return held(kSleepDelay) == 0; }));
  // After each wake the lock is back for the next sleep.
  emitPrepareForSleep(/*start=*/false);
  emitPrepareForSleep(/*start=*/false);
  ASSERT_TRUE(pump([&] { return wakes_ == 2; }));
  EXPECT_TRUE(pump([&] { return held(kSleepDelay) == 1; }));
  EXPECT_EQ(sleeps_, 1);
}

// Without the delay lock, sleep cannot be held back, but it and the wake are
// still announced.
TEST_F(LogindTest, SleepAndWakeAreFollowedWhenTheDelayIsRefused) {
  refuse("Inhibit", "ssss", "h", "org.freedesktop.DBus.Error.AccessDenied");
  startPower();
  emitPrepareForSleep(/*start=*/true);
  ASSERT_TRUE(pump([&] { return sleeps_ == 1; }));
  emitPrepareForSleep(/*start=*/false);
  ASSERT_TRUE(pump([&] { return wakes_ == 1; }));
}

TEST_F(LogindTest, SleepGuardHoldsAnIdleSleepBlock) {
  auto guard = makeLogindSleepGuard(connection_.get());
  ASSERT_NE(guard, nullptr);
  guard->hold();
  guard->hold();
  ASSERT_TRUE(pump([&] { return held(kIdleBlock) >= 1; }));
  EXPECT_EQ(held(kIdleBlock), 1);
  guard->release();
  EXPECT_TRUE(pump([&] { return held(kIdleBlock) == 0; }));
  // A hold still under way when released is dropped as soon as it arrives:
  // asking on the guard's own connection proves logind took it first.
  guard->hold();
  guard->release();
  EXPECT_EQ(countInhibitors(client_.get(), kIdleBlock), 1);
  EXPECT_TRUE(pump([&] { return held(kIdleBlock) == 0; }));
}

// The session at start is learnt, not reported; each change after it is.
TEST_F(LogindTest, UserAndNoSessionAreReported) {
  constexpr uid_t kStranger = 3'999'999;
  ASSERT_EQ(getpwuid(kStranger), nullptr);
  addSession("c0", "seat0", kStranger, "ghost");
  startConsole();
  ASSERT_TRUE(pump([&] { return console_->current().kind == ConsoleSessionKind::User; }));
  EXPECT_EQ(console_->current().name, "ghost");
  EXPECT_EQ(console_->current().uid, kStranger);
  EXPECT_EQ(console_->current().gid, std::nullopt);
  EXPECT_TRUE(reports_.empty());

  addSession("c1", "seat0", getuid(), "alice");
  ASSERT_TRUE(waitForReports(1));
  EXPECT_EQ(reports_[0].kind, ConsoleSessionKind::User);
  EXPECT_EQ(reports_[0].name, "alice");
  EXPECT_EQ(reports_[0].uid, getuid());
  EXPECT_EQ(reports_[0].gid, getpwuid(getuid())->pw_gid);
  // A session on another seat is no news.
  addSession("s1", "seat1", getuid(), "alice");
  activate("");
  ASSERT_TRUE(waitForReports(2));
  EXPECT_EQ(reports_[1].kind, ConsoleSessionKind::None);
  EXPECT_EQ(console_->current().kind, ConsoleSessionKind::None);
}

// Changes that follow each other before logind answered the first lookup are
// each reported, in order; a malformed or forged change is none.
TEST_F(LogindTest, QuickConsoleChangesAreEachReportedInOrder) {
  addSession("a", "seat0", getuid(), "alice");
  addSession("g1", "seat1", getuid(), "greeter");
  call(sessionPath("g1"), kProperties, "Set", "ssv", "org.freedesktop.login1.Session", "Class", "s",
       "greeter");
  addSession("b", "seat1", getuid(), "bob");
  startConsole();
  // logind's own signal, with ActiveSession of the wrong type.
  call(kSeat0, kMock, "EmitSignal", "sssav", kProperties, "PropertiesChanged", "sa{sv}as", 3, "s",
       "org.freedesktop.login1.Seat", "a{sv}", 1, "ActiveSession", "s", "bogus", "as", 0);
  // A well-formed change, sent to us alone by someone who is not logind.
  sendForgedSignal(kSeat0, kProperties, "PropertiesChanged", "sa{sv}as",
                   "org.freedesktop.login1.Seat", 1, "ActiveSession", "(so)", "b",
                   sessionPath("b").c_str(), 0);
  activate("g1");
  activate("b");
  activate("a");
  ASSERT_TRUE(waitForReports(3));
  EXPECT_EQ(reports_[0].kind, ConsoleSessionKind::Greeter);
  EXPECT_EQ(reports_[1].name, "bob");
  EXPECT_EQ(reports_[2].name, "alice");
  EXPECT_EQ(console_->current().name, "alice");
  // A login screen that has gone before it could be looked up still means
  // that nobody we can name is at the console.
  activate("g1");
  call(kManager, kMock, "RemoveObject", "o", sessionPath("g1").c_str());
  activate("b");
  ASSERT_TRUE(waitForReports(5));
  EXPECT_NE(reports_[3].kind, ConsoleSessionKind::User);
  EXPECT_EQ(reports_[4].name, "bob");
  settle();
  EXPECT_EQ(reports_.size(), 5u);
}

TEST_F(LogindTest, IdleTimeRunsFromTheHintWhileTheUserIsIdle) {
  fakes::FakeClock clock;
  clock.set(runloop::fromUnixSeconds(static_cast<double>(kNowUsec) / 1e6));
  auto source = makeLogindIdleTimeSource(connection_.get(), clock);
  int answers = 0;
  source->setListener([&answers] { ++answers; });
  const auto read = [&] {  // a fresh answer
    const int before = answers;
    EXPECT_TRUE(source->refresh());
    EXPECT_EQ(answers, before);  // the loop never waits for logind
    EXPECT_TRUE(pump([&] { return answers > before; }));
    return source->idleTime();
  };
  const auto setIdle = [&](bool idle, std::uint64_t sinceUsec) {
    call(kManager, kProperties, "Set", "ssv", kManagerInterface, "IdleHint", "b", int{idle});
    call(kManager, kProperties, "Set", "ssv", kManagerInterface, "IdleSinceHint", "t", sinceUsec);
  };
  EXPECT_EQ(read(), 0);                   // the mock starts active
  setIdle(true, kNowUsec - 700'500'000);  // 700.5 s ago
  EXPECT_DOUBLE_EQ(read(), 700.5);
  clock.advance(3600);  // counted on from the last answer
  EXPECT_DOUBLE_EQ(source->idleTime(), 4300.5);
  setIdle(false, kNowUsec - 700'500'000);        // the user came back
  EXPECT_DOUBLE_EQ(source->idleTime(), 4300.5);  // not yet heard
  EXPECT_EQ(read(), 0);
  // Hints that make no sense read as zero.
  setIdle(true, 0);  // idle since an unknown moment
  EXPECT_EQ(read(), 0);
  setIdle(true, kNowUsec + 3'660'000'000);  // a minute ahead of the clock
  EXPECT_EQ(read(), 0);
  call(kManager, kProperties, "Set", "ssv", kManagerInterface, "IdleHint", "s", "yes");
  EXPECT_EQ(read(), 0);  // not a boolean
}

// A refusal gives its error number; dropping the adapter drops an unanswered
// completion.
TEST_F(LogindTest, SuspendIsAskedForWithoutInteractionAndARefusalGivesItsErrorNumber) {
  auto sleep = makeLogindSystemSleep(connection_.get());
  ASSERT_NE(sleep, nullptr);
  EXPECT_EQ(suspend(*sleep), 0);
  EXPECT_THAT(bus_.calls("logind", "Suspend"), ElementsAre("False"));
  refuse("Suspend", "b", "", "org.freedesktop.DBus.Error.AccessDenied");
  EXPECT_EQ(suspend(*sleep), EACCES);
  // A bus error that names no errno still reads as a failure.
  refuse("Suspend", "b", "", "org.freedesktop.login1.SleepVerbNotSupported");
  EXPECT_GT(suspend(*sleep), 0);
  bool called = false;
  sleep->sleepNow([&](int) { called = true; });
  sleep.reset();
  ASSERT_TRUE(pump([&] { return bus_.calls("logind", "Suspend").size() == 4; }));
  settle();
  EXPECT_FALSE(called);
}

class LogindAbsentTest : public LogindTest {
  void SetUp() override { BusTest::SetUp(); }
};

// Without logind nothing waits for it: the calls fail and idle reads as zero.
// It is followed on the bus: what is wanted of it is taken when it comes and
// again each time it comes back.
TEST_F(LogindAbsentTest, LogindIsFollowedWhenItComesLateAndComesBack) {
  fakes::FakeClock clock;
  EXPECT_EQ(makeLogindConsoleUserSource(nullptr), nullptr);
  EXPECT_EQ(makeLogindPowerSource(nullptr), nullptr);
  EXPECT_EQ(makeLogindSleepGuard(nullptr), nullptr);
  EXPECT_EQ(makeLogindSystemSleep(nullptr), nullptr);
  EXPECT_FALSE(makeLogindIdleTimeSource(nullptr, clock)->refresh());
  EXPECT_EQ(makeLogindIdleTimeSource(connection_.get(), clock)->idleTime(), 0);
  EXPECT_GT(suspend(*makeLogindSystemSleep(connection_.get())), 0);

  auto power = makeLogindPowerSource(connection_.get());
  auto guard = makeLogindSleepGuard(connection_.get());
  guard->hold();
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(bus_.startTemplate("logind", kService));
    EXPECT_TRUE(pump([&] { return held(kSleepDelay) == 1 && held(kIdleBlock) == 1; }));
    bus_.stopTemplates();
  }
}

}  // namespace
}  // namespace nightjar::platform::linux_adapter
