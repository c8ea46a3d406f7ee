#include <gtest/gtest.h>

#include "platform/linux/logind_console_user_source.h"
#include "platform/linux/logind_power_source.h"
#include "platform/linux/logind_sleep_guard.h"
#include "platform/logind_mock.h"

namespace nightjar::platform::linux_adapter {
namespace {

using namespace nightjar::testing::logind_mock;

const Inhibitor kSleepDelay{"sleep", "nightjard", "Announcing sleep to scheduled events", "delay"};
const Inhibitor kIdleBlock{"idle", "nightjard", "Performing a scheduled event", "block"};

class LogindPowerTest : public LogindTest {
 protected:
  long held(const Inhibitor& inhibitor) { return countInhibitors(driver_.get(), inhibitor); }

  void start() {
    source_ = makeLogindPowerSource(connection_.get());
    ASSERT_NE(source_, nullptr);
    source_->setHandlers({.willSleep =
                              [this] {
                                ++sleeps_;
                                delayHeldWhileSleeping_ = held(kSleepDelay) == 1;
                              },
                          .didWake = [this] { ++wakes_; }});
  }

  std::unique_ptr<PowerSource> source_;
  int sleeps_ = 0;
  int wakes_ = 0;
  bool delayHeldWhileSleeping_ = false;
};

TEST_F(LogindPowerTest, DelayLockHoldsSleepUntilTheHandlerReturned) {
  start();
  ASSERT_TRUE(pump([&] { return held(kSleepDelay) == 1; }));
  emitPrepareForSleep(driver_.get(), /*start=*/true);
  ASSERT_TRUE(pump([&] { return sleeps_ == 1; }));
  EXPECT_TRUE(delayHeldWhileSleeping_);
  EXPECT_TRUE(pump([&] { return held(kSleepDelay) == 0; }));

  // After the wake the lock is back for the next sleep.
  emitPrepareForSleep(driver_.get(), /*start=*/false);
  ASSERT_TRUE(pump([&] { return wakes_ == 1; }));
  EXPECT_TRUE(pump([&] { return held(kSleepDelay) == 1; }));
}

// Without the delay lock, sleep cannot be held back, but it and the wake are
// still announced.
TEST_F(LogindPowerTest, SleepAndWakeAreFollowedWhenTheDelayIsRefused) {
  call(driver_.get(), kManager, kMock, "AddMethod", "sssss", "org.freedesktop.login1.Manager",
       "Inhibit", "ssss", "h",
       "raise dbus.exceptions.DBusException('refused', "
       "name='org.freedesktop.DBus.Error.AccessDenied')");
  start();
  EXPECT_EQ(held(kSleepDelay), 0);
  emitPrepareForSleep(driver_.get(), /*start=*/true);
  ASSERT_TRUE(pump([&] { return sleeps_ == 1; }));
  emitPrepareForSleep(driver_.get(), /*start=*/false);
  ASSERT_TRUE(pump([&] { return wakes_ == 1; }));
  settle(driver_.get(), client_.get());
  EXPECT_EQ(held(kSleepDelay), 0);
}

TEST_F(LogindPowerTest, ForgedSleepSignalIsIgnored) {
  start();
  sendForgedSignal(driver_.get(), client_.get(), kManager, "org.freedesktop.login1.Manager",
                   "PrepareForSleep", "b", 1);
  emitPrepareForSleep(driver_.get(), /*start=*/false);  // arrives after the forgery
  ASSERT_TRUE(pump([&] { return wakes_ == 1; }));
  EXPECT_EQ(sleeps_, 0);
  EXPECT_EQ(held(kSleepDelay), 1);
}

TEST_F(LogindPowerTest, SleepGuardHoldsAnIdleSleepBlock) {
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

TEST(LogindAbsentTest, EveryFacilityIsAbsentWithoutABus) {
  EXPECT_EQ(makeLogindConsoleUserSource(nullptr), nullptr);
  EXPECT_EQ(makeLogindPowerSource(nullptr), nullptr);
  EXPECT_EQ(makeLogindSleepGuard(nullptr), nullptr);
}

// logind is followed on the bus: what is wanted of it is taken when it comes
// and again each time it comes back, and nothing waits for it meanwhile.
TEST(LogindAbsentTest, LogindIsFollowedWhenItComesLateAndComesBack) {
  testing::PrivateBus bus;
  auto loop = runloop::RunLoop::create();
  BusPtr client = bus.connect();
  BusPtr driver = bus.connect();
  ASSERT_TRUE(loop && client && driver);
  ASSERT_GE(sd_bus_attach_event(client.get(), loop->event(), SD_EVENT_PRIORITY_NORMAL), 0);
  auto connection = SystemBusConnection::adopt(client.get());
  auto power = makeLogindPowerSource(connection.get());
  auto guard = makeLogindSleepGuard(connection.get());
  guard->hold();
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(bus.startTemplate("logind", kService));
    EXPECT_TRUE(testing::runUntil(loop->event(), [&] {
      return countInhibitors(driver.get(), kSleepDelay) == 1 &&
             countInhibitors(driver.get(), kIdleBlock) == 1;
    }));
    bus.stopTemplates();
  }
}

}  // namespace
}  // namespace nightjar::platform::linux_adapter
