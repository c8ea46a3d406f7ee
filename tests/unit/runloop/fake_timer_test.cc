#include "fakes/fake_timer.h"

#include <gtest/gtest.h>

#include "fakes/fake_clock.h"

namespace nightjar::fakes {
namespace {

TEST(FakeTimerTest, RecordsArmingAndFiresOnlyByHand) {
  FakeClock clock(1000);
  FakeTimerFactory timers(clock);
  int calls = 0;
  auto timer = timers.timerFactory()([&] { ++calls; });
  FakeTimer* fake = timers.last();
  ASSERT_EQ(fake, timer.get());
  EXPECT_TRUE(fake->parked());
  EXPECT_EQ(fake->nextFireDate(), 1000 + runloop::kParkInterval);

  fake->setNextFireDate(1010);
  EXPECT_FALSE(fake->parked());
  clock.advance(10);
  EXPECT_TRUE(fake->due(clock.now()));
  EXPECT_EQ(calls, 0);
  fake->fire();
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(fake->armed());
  EXPECT_FALSE(fake->due(clock.now()));
}

TEST(FakeTimerTest, FactoryForgetsDestroyedTimersAndCanFail) {
  FakeClock clock;
  FakeTimerFactory timers(clock);
  auto factory = timers.timerFactory();
  auto first = factory([] {});
  auto second = factory([] {});
  first.reset();
  EXPECT_EQ(timers.created(), 2u);
  EXPECT_EQ(timers.timer(0), nullptr);
  EXPECT_EQ(timers.timer(1), second.get());
  timers.setFailing(true);
  EXPECT_EQ(factory([] {}), nullptr);
}

}  // namespace
}  // namespace nightjar::fakes
