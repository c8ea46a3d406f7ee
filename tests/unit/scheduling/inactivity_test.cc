#include "scheduling/inactivity_queue_controller.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "fakes/port_fakes.h"
#include "scheduling/engine_testing.h"

namespace nightjar::scheduling {
namespace {

using namespace testing;
constexpr plist::AbsoluteTime kStart = nightjar::testing::kPortsStart;

// The controller over a fake idle time, on the perform fixture.
class InactivityTest : public PerformFixture {
 protected:
  void SetUp() override {
    PerformFixture::SetUp();
    controller_ = inactivityQueueControllerCreate(&idle_, clock_, timers_.timerFactory());
    ASSERT_NE(controller_, nullptr);
  }
  void TearDown() override {
    queueControllerDestroy(controller_);
    PerformFixture::TearDown();
  }

  fakes::FakeTimer& timer() { return *timers_.timer(0); }
  // Fires the timer and answers the fresh idle time that it asked for.
  void fireAndAnswer() {
    timer().fire();
    idle_.answer();
  }

  nightjar::testing::FakeIdleTimeSource idle_{clock_};
  QueueController* controller_ = nullptr;
};

TEST_F(InactivityTest, OnlyTheShortestPeriodIsTimedAndPerformed) {
  EXPECT_TRUE(queueControllerAccepts(controller_, "inactive"));
  EXPECT_FALSE(queueControllerAccepts(controller_, "daily"));
  queueControllerStore(controller_, inactiveEvent("long", 3600));
  queueControllerStore(controller_, inactiveEvent("short", 600));
  EXPECT_DOUBLE_EQ(timer().nextFireDate(), kStart + 601);
  // Idle far beyond both periods: the shorter one is performed, each time.
  clock_.advance(4000);
  fireAndAnswer();
  endPause();
  clock_.set(timer().nextFireDate());
  fireAndAnswer();
  endPause();
  EXPECT_EQ(performed(), (std::vector<std::string>{"short", "short"}));
  // Once it leaves, the longer one is timed from the idle time so far.
  queueControllerRemove(controller_, S("short"));
  const double idle = clock_.now() - kStart;
  EXPECT_DOUBLE_EQ(timer().nextFireDate(), clock_.now() + 3601 - idle);
  queueControllerRemove(controller_, S("long"));
  EXPECT_TRUE(timer().parked());
}

// First performed once the idle time exceeds the period in whole seconds, then
// every period; each firing either performs or arms for a later instant.
TEST_F(InactivityTest, RepeatsEveryPeriodWhileTheUserStaysAway) {
  queueControllerStore(controller_, inactiveEvent("a", 600));
  clock_.set(kStart + 600.5);  // early (a clock set back): not yet
  fireAndAnswer();
  EXPECT_TRUE(performed().empty());
  EXPECT_DOUBLE_EQ(timer().nextFireDate(), kStart + 601);
  clock_.set(timer().nextFireDate());
  fireAndAnswer();
  EXPECT_EQ(performed().size(), 1u);
  EXPECT_DOUBLE_EQ(timer().nextFireDate(), clock_.now() + 600);
  endPause();
  // The user comes back 100 s before the next look: timed a period after that.
  clock_.set(timer().nextFireDate() - 100);
  idle_.touch();
  clock_.advance(100);
  fireAndAnswer();
  EXPECT_EQ(performed().size(), 1u);
  EXPECT_DOUBLE_EQ(timer().nextFireDate(), clock_.now() + 501);
}

// Only a fresh idle time decides: the user may have come back unannounced.
TEST_F(InactivityTest, AFiringWaitsForAFreshIdleTime) {
  queueControllerStore(controller_, inactiveEvent("a", 600));
  idle_.answer();
  clock_.advance(700);
  idle_.touch();  // through a terminal: the source has not heard of it
  timer().fire();
  EXPECT_TRUE(idle_.outstanding());
  EXPECT_TRUE(performed().empty());
  clock_.advance(0.2);
  idle_.answer();
  EXPECT_TRUE(performed().empty());
  EXPECT_DOUBLE_EQ(timer().nextFireDate(), clock_.now() + 600.8);
  // A queue change arms from what is known and again once a fresh answer is in.
  clock_.advance(100);
  idle_.lastInputAt(kStart);
  queueControllerStore(controller_, inactiveEvent("b", 900));
  EXPECT_DOUBLE_EQ(timer().nextFireDate(), clock_.now() + 500.8);
  idle_.answer();
  EXPECT_TRUE(timer().due(clock_.now()));
}

// A period below 1 s repeats once a second, not on every loop pass.
TEST_F(InactivityTest, APeriodBelowOneSecondRepeatsOnceASecond) {
  for (const std::int64_t period : {0, -5}) {
    queueControllerStore(controller_, inactiveEvent(std::to_string(period), period));
    clock_.set(std::max(timer().nextFireDate(), clock_.now()));
    fireAndAnswer();
    EXPECT_DOUBLE_EQ(timer().nextFireDate(), clock_.now() + 1);
    endPause();
  }
  EXPECT_EQ(performed(), (std::vector<std::string>{"0", "-5"}));
}

// A restore arms from the idle time so far, in the past if need be; a wake
// arms a full period ahead, the idle time known then being stale.
TEST_F(InactivityTest, RestoreArmsFromTheIdleTimeAndWakeAFullPeriodAhead) {
  clock_.advance(1000);  // nobody has touched the machine since kStart
  queueControllerReplaceAll(controller_, A({inactiveEvent("a", 600)}));
  EXPECT_DOUBLE_EQ(timer().nextFireDate(), clock_.now() - 399);
  fireAndAnswer();
  EXPECT_EQ(performed(), std::vector<std::string>{"a"});
  endPause();
  clock_.advance(5000);
  postWake();
  EXPECT_DOUBLE_EQ(timer().nextFireDate(), clock_.now() + 601);
}

TEST_F(InactivityTest, AFiringDuringItsOwnPerformWaitsForTheCompletion) {
  queueControllerStore(controller_, inactiveEvent("a", 1));
  clock_.advance(2);
  fireAndAnswer();
  ASSERT_EQ(performed().size(), 1u);
  // The pause outlasts the period: the timer comes round mid-perform.
  clock_.advance(1);
  ASSERT_TRUE(timer().due(clock_.now()));
  timer().fire();
  EXPECT_FALSE(idle_.outstanding());
  EXPECT_EQ(performed().size(), 1u);
  EXPECT_TRUE(eventActionBusy());
  clock_.advance(1);
  pauses_.last()->fire();
  EXPECT_FALSE(eventActionBusy());
  EXPECT_TRUE(timer().due(clock_.now()));
  fireAndAnswer();
  EXPECT_EQ(performed().size(), 2u);
  // A completion or an answer after destruction is harmless.
  queueControllerStore(controller_, inactiveEvent("b", 900));
  queueControllerDestroy(controller_);
  controller_ = nullptr;
  EXPECT_EQ(runloop::localCenter().observationCount(), 0u);
  EXPECT_FALSE(idle_.listening());
  EXPECT_TRUE(idle_.answer());
  pauses_.last()->fire();
  EXPECT_FALSE(eventActionBusy());
}

}  // namespace
}  // namespace nightjar::scheduling
