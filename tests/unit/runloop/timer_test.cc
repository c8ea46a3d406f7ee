#include "runloop/timer.h"

#include <cmath>
#include <ctime>
#include <limits>

#include "loop_fixture.h"

namespace nightjar::runloop {
namespace {

TEST(ClockTest, SystemClockIsTheWallClock) {
  const double unixNow = static_cast<double>(std::time(nullptr));
  EXPECT_NEAR(toUnixSeconds(systemClock().now()), unixNow, 2.0);
}

TEST(ClockTest, UnixMicrosecondsClampInsteadOfOverflowing) {
  const std::uint64_t cap = std::uint64_t{1} << 62;
  const double inf = std::numeric_limits<double>::infinity();
  EXPECT_EQ(toUnixMicroseconds(0), 978307200000000u);
  EXPECT_EQ(toUnixMicroseconds(1.5e-6), 978307200000001u);  // floors
  EXPECT_EQ(toUnixMicroseconds(fromUnixSeconds(0)), 0u);
  EXPECT_EQ(toUnixMicroseconds(fromUnixSeconds(-1)), 0u);
  EXPECT_EQ(toUnixMicroseconds(-inf), 0u);
  EXPECT_EQ(toUnixMicroseconds(std::nan("")), 0u);
  EXPECT_EQ(toUnixMicroseconds(1e300), cap);
  EXPECT_EQ(toUnixMicroseconds(inf), cap);
  EXPECT_LT(toUnixMicroseconds(kParkInterval), cap);
}

using TimerTest = LoopTest;

class PastDateTest : public LoopTest, public ::testing::WithParamInterface<double> {};

TEST_P(PastDateTest, FiresOnTheNextPass) {
  bool fired = false;
  auto timer = loop->addTimer([&] {
    fired = true;
    loop->stop();
  });
  timer->setNextFireDate(GetParam() < 0 ? systemClock().now() + GetParam() : GetParam());
  runLoop();
  EXPECT_TRUE(fired);
}

// A second ago, now, and long before the Unix epoch.
INSTANTIATE_TEST_SUITE_P(Dates, PastDateTest, ::testing::Values(-1.0, -1e-9, -1e12));

TEST_F(TimerTest, ResetReplacesTheEarlierDateAndNeverFiresEarly) {
  std::vector<AbsoluteTime> firedAt;
  auto timer = loop->addTimer([&] { firedAt.push_back(systemClock().now()); });
  const AbsoluteTime later = systemClock().now() + 0.02;
  timer->setNextFireDate(later - 0.015);
  timer->setNextFireDate(later);
  EXPECT_EQ(timer->nextFireDate(), later);
  stopAfter(0.04);
  runLoop();
  ASSERT_EQ(firedAt.size(), 1u);
  EXPECT_GE(firedAt[0], later - 1e-5);  // one µs of rounding
}

// New and parked timers sit a century ahead; a destroyed one never fires.
TEST_F(TimerTest, NewParkedAndDestroyedTimersDoNotFire) {
  bool fired = false;
  auto fresh = loop->addTimer([&] { fired = true; });
  auto parked = loop->addTimer([&] { fired = true; });
  auto destroyed = loop->addTimer([&] { fired = true; });
  parked->setNextFireDate(systemClock().now() - 1);
  parked->park();
  destroyed->setNextFireDate(systemClock().now() - 1);
  destroyed.reset();
  EXPECT_NEAR(fresh->nextFireDate(), systemClock().now() + kParkInterval, 1.0);
  EXPECT_NEAR(parked->nextFireDate(), systemClock().now() + kParkInterval, 1.0);
  stopAfter(0.01);
  runLoop();
  EXPECT_FALSE(fired);
}

TEST_F(TimerTest, FiresOnceUntilSetAgain) {
  int calls = 0;
  std::unique_ptr<Timer> timer = loop->timerFactory()([&] {
    if (++calls == 1) {
      timer->setNextFireDate(systemClock().now());
    }
  });
  ASSERT_NE(timer, nullptr);
  timer->setNextFireDate(systemClock().now() - 1);
  stopAfter(0.02);
  runLoop();
  EXPECT_EQ(calls, 2);
}

TEST_F(TimerTest, CallbackMayDestroyItsOwnTimer) {
  std::unique_ptr<Timer> timer;
  timer = loop->addTimer([&] {
    timer.reset();
    loop->stop();
  });
  timer->setNextFireDate(systemClock().now());
  runLoop();
  EXPECT_EQ(timer, nullptr);
}

}  // namespace
}  // namespace nightjar::runloop
