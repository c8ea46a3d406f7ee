#include "runloop/timer.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <limits>

#include "loop_fixture.h"

namespace nightjar::runloop {
namespace {

TEST(ClockTest, TheWallClockInUnixMicrosecondsClampedInsteadOfOverflowing) {
  EXPECT_NEAR(toUnixSeconds(systemClock().now()), static_cast<double>(std::time(nullptr)), 2.0);
  const std::uint64_t cap = std::uint64_t{1} << 62;
  const double inf = std::numeric_limits<double>::infinity();
  EXPECT_EQ(toUnixMicroseconds(0), 978307200000000u);
  EXPECT_EQ(toUnixMicroseconds(1.5e-6), 978307200000001u);  // floors
  EXPECT_EQ(toUnixMicroseconds(fromUnixSeconds(-1)), 0u);
  EXPECT_EQ(toUnixMicroseconds(std::nan("")), 0u);
  EXPECT_EQ(toUnixMicroseconds(inf), cap);
  EXPECT_LT(toUnixMicroseconds(kParkInterval), cap);
}

using TimerTest = LoopTest;

// A second ago, now, and long before the Unix epoch; each callback destroys its own timer.
TEST_F(TimerTest, PastDatesFireOnTheNextPass) {
  std::vector<std::unique_ptr<Timer>> timers;
  for (double date : {systemClock().now() - 1, systemClock().now() - 1e-9, -1e12}) {
    timers.push_back(loop->addTimer([this, &timers, i = timers.size()] {
      timers[i].reset();
      if (std::count(timers.begin(), timers.end(), nullptr) == 3)
        loop->stop();
    }));
    timers.back()->setNextFireDate(date);
  }
  runLoop();
}

// The last date set wins, never early; fired, a timer is off until set again.
// New and parked timers sit a century ahead; a destroyed one never fires.
TEST_F(TimerTest, FiresOnceAtTheLastDateSetUntilSetAgain) {
  std::vector<AbsoluteTime> firedAt;
  std::unique_ptr<Timer> timer = loop->timerFactory()([&] {
    firedAt.push_back(systemClock().now());
    if (firedAt.size() == 1)
      timer->setNextFireDate(systemClock().now());
  });
  const AbsoluteTime later = systemClock().now() + 0.02;
  timer->setNextFireDate(later - 0.015);
  timer->setNextFireDate(later);
  EXPECT_EQ(timer->nextFireDate(), later);
  auto fresh = loop->addTimer([&] { firedAt.push_back(0); });
  auto parked = loop->addTimer([&] { firedAt.push_back(0); });
  auto destroyed = loop->addTimer([&] { firedAt.push_back(0); });
  parked->setNextFireDate(systemClock().now() - 1);
  parked->park();
  destroyed->setNextFireDate(systemClock().now() - 1);
  destroyed.reset();
  EXPECT_NEAR(fresh->nextFireDate(), systemClock().now() + kParkInterval, 1.0);
  EXPECT_NEAR(parked->nextFireDate(), systemClock().now() + kParkInterval, 1.0);
  stopAfter(0.04);
  runLoop();
  ASSERT_EQ(firedAt.size(), 2u);
  EXPECT_GE(firedAt[0], later - 1e-5);  // one µs of rounding
}

}  // namespace
}  // namespace nightjar::runloop
