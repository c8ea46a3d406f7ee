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
    source_ = makeLogindPowerSource(client_.get());
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
  EXPECT_EQ(held(kSleepDelay), 1);
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
  auto guard = makeLogindSleepGuard(client_.get());
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

TEST(LogindAbsentTest, EveryFacilityIsAbsentWithoutLogind) {
  testing::PrivateBus bus;
  BusPtr client = bus.connect();
  ASSERT_NE(client, nullptr);
  for (sd_bus* b : {client.get(), static_cast<sd_bus*>(nullptr)}) {
    EXPECT_EQ(makeLogindConsoleUserSource(b), nullptr);
    EXPECT_EQ(makeLogindPowerSource(b), nullptr);
    EXPECT_EQ(makeLogindSleepGuard(b), nullptr);
  }
}

}  // namespace
}  // namespace nightjar::platform::linux_adapter
