#include "core/clock_change.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "fakes/fake_power_manager.h"
#include "fakes/ports_fixture.h"
#include "fakes/recording_log_sink.h"
#include "model/event_list.h"
#include "runloop/run_loop.h"
#include "scheduling/date_time_queue_controller.h"
#include "scheduling/date_time_testing.h"
#include "scheduling/date_time_trigger.h"
#include "scheduling/event_action.h"
#include "scheduling/power_events.h"

namespace nightjar::core {
namespace {

using namespace scheduling::testing;
namespace sc = scheduling;

const AbsoluteTime kNine = utc(2026, 11, 3, 9);  // a Tuesday, 09:00 UTC
const AbsoluteTime kTen = kNine + 3600;
constexpr double kDay = 86400;

// The engine as the daemon wires it, over a fake clock and hand-fired timers,
// with a stand-in for the run loop that posts the clock changes.
class ClockChangeTest : public nightjar::testing::PortsFixture {
 protected:
  ClockChangeTest() : PortsFixture(kNine) {}
  void SetUp() override {
    PortsFixture::SetUp();
    sc::powerEventsSetManager(&power_, &clock_);
    sc::eventActionSetUp({.timers = pauses_.timerFactory(), .clock = &clock_});
    model::eventListSetUp();
    sc::queueControllerListSetUp();
    controller_ = sc::dateTimeQueueControllerCreate(clock_, timers_.timerFactory(), [] {});
    sc::queueControllerListAppend(sc::queueControllerListGet(), controller_);
    sc::eventSchedulerSetUp(model::eventListGet(), sc::queueControllerListGet());
    followClockChanges(sc::eventSchedulerGet(), &loop_);
  }
  void TearDown() override {
    sc::eventSchedulerTearDown();
    model::eventListTearDown();
    sc::queueControllerListTearDown();
    sc::eventActionTearDown();
    sc::powerEventsSetManager(nullptr, nullptr);
    PortsFixture::TearDown();
  }

  // Sets the clock as a step does; the loop fires what the step made due,
  // then posts the change when `posted`.
  void step(AbsoluteTime now, bool posted = true) {
    clock_.set(now);
    for (int i = 0; i < 10 && timers_.timer(0)->due(now); ++i)
      timers_.timer(0)->fire();
    if (posted)
      runloop::localCenter().post(runloop::kClockChangedNotification, &loop_);
  }
  std::optional<AbsoluteTime> triggerDate(const std::string& id) {
    return model::eventQueueFind(sc::queueControllerQueue(controller_), S(id))
        .get(sc::kTriggerDateKey)
        .asDate();
  }
  std::vector<AbsoluteTime> entryDates() const {
    std::vector<AbsoluteTime> dates;
    for (const Value& entry : power_.entries())
      dates.push_back(*entry.get(platform::kEntryTimeKey).asDate());
    std::ranges::sort(dates);
    return dates;
  }

  ScopedZone zone_{"UTC"};
  nightjar::testing::RecordingLogSink log_;
  fakes::FakeTimerFactory pauses_{clock_};
  fakes::FakePowerManager power_;
  sc::QueueController* controller_ = nullptr;
  int loop_ = 0;
};

// A daily wake at 10:00 and a once wake at 11:00; the clock starts on 09:00,
// runs to `before` (performing what falls due), is set to `after`, then runs
// on for three hours.
TEST_F(ClockChangeTest, StepsPerformEachOccurrenceOnceAndLoseNone) {
  struct Case {
    const char* name;
    AbsoluteTime before, after;
    AbsoluteTime daily;                  // its next trigger date after the step
    std::optional<AbsoluteTime> once;    // its trigger date, when still queued
    std::vector<std::string> performed;  // from the step on
  };
  const Case cases[] = {
      {"forward over both", kNine, kTen + 3 * 3600, kTen + kDay, {}, {"daily", "once"}},
      {"back over both", kTen + 5400, kNine, kTen + kDay, {}, {}},
      {"back over one", kTen + 1800, kTen - 60, kTen + kDay, kTen + 3600, {"once"}},
      // Set back by more than a day, the clock is taken as right: the events
      // come again from there.
      {"back by days", kTen + 5400, kNine - 2 * kDay, kTen - 2 * kDay, kTen + 3600, {"daily"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    clock_.set(kNine);
    // Named alike, but new events each time.
    const std::string daily = std::string(c.name) + "/daily", once = std::string(c.name) + "/once";
    model::eventListStore(model::eventListGet(),
                          dailyEvent(daily, hms(10, 0), "wake").with("name", S("daily")));
    model::eventListStore(model::eventListGet(),
                          onceEvent(once, kTen + 3600, "wake").with("name", S("once")));
    step(c.before, /*posted=*/false);
    log_.lines.clear();
    step(c.after);

    EXPECT_EQ(std::ranges::count(log_.texts(), "The system clock was set; rescheduling events."),
              1);
    EXPECT_EQ(triggerDate(daily), c.daily);
    EXPECT_EQ(triggerDate(once), c.once);
    // The timer and the wake entries follow the new dates.
    std::vector<AbsoluteTime> entries{c.daily};
    if (c.once)
      entries.push_back(*c.once);
    std::ranges::sort(entries);
    EXPECT_EQ(timers_.timer(0)->nextFireDate(), entries.front());
    EXPECT_EQ(entryDates(), entries);
    step(c.after + 3 * 3600, /*posted=*/false);
    EXPECT_EQ(log_.performed(), c.performed);
    model::eventListRemove(model::eventListGet(), S(daily));
    model::eventListRemove(model::eventListGet(), S(once));
  }
}

}  // namespace
}  // namespace nightjar::core
