#include "scheduling/date_time_queue_controller.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "core/clock_change.h"
#include "fakes/port_fakes.h"
#include "model/event_list.h"
#include "notifications/notification_controller.h"
#include "runloop/run_loop.h"
#include "scheduling/date_time_trigger.h"
#include "scheduling/engine_testing.h"
#include "scheduling/event_scheduler.h"
#include "scheduling/power_events.h"

namespace nightjar::scheduling {
namespace {

using namespace testing;
namespace nc = notifications;

const AbsoluteTime kStart = utc(2026, 11, 3, 9);  // a Tuesday, 09:00 UTC
const AbsoluteTime kTen = utc(2026, 11, 3, 10);
constexpr double kDay = 86400;

// The whole engine around the controller, over fakes: event list, scheduler,
// notification controller, perform sequence and power manager, each on the
// fake clock. The test fires every timer by hand.
class DateTimeControllerTest : public PerformFixture {
 protected:
  DateTimeControllerTest() : PerformFixture(kStart) {}
  void SetUp() override {
    PerformFixture::SetUp();
    powerEventsSetManager(&power_, &clock_);
    nc::notificationControllerCreate(clock_, warnings_.timerFactory(), [](const Value& id) {
      eventSchedulerReschedule(eventSchedulerGet(), id);
    });
    model::eventListSetUp();
    queueControllerListSetUp();
    controller_ =
        dateTimeQueueControllerCreate(clock_, timers_.timerFactory(), [this] { ++zoneRefreshes_; });
    ASSERT_NE(controller_, nullptr);
    queueControllerListAppend(queueControllerListGet(), controller_);
    eventSchedulerSetUp(model::eventListGet(), queueControllerListGet());
  }
  void TearDown() override {
    eventSchedulerTearDown();
    model::eventListTearDown();
    queueControllerListTearDown();
    nc::notificationControllerDestroy();
    powerEventsSetManager(nullptr, nullptr);
    PerformFixture::TearDown();
  }

  void add(const Value& event) { model::eventListStore(model::eventListGet(), event); }
  Value queued(const std::string& id) {
    return model::eventQueueFind(queueControllerQueue(controller_), S(id));
  }
  std::optional<AbsoluteTime> triggerDate(const std::string& id) {
    return queued(id).get(kTriggerDateKey).asDate();
  }
  std::optional<AbsoluteTime> warnedFor(const std::string& id) {
    const nc::NotificationController* warnings = nc::notificationControllerGet();
    return model::eventQueueFind(nc::notificationControllerPendingQueue(warnings), S(id))
        .get(nc::kTriggerDateKey)
        .asDate();
  }
  fakes::FakeTimer& timer() { return *timers_.timer(0); }
  // Moves the clock to `now` and fires the controller's timer, as the run
  // loop would once the clock reached its date.
  void fireAt(AbsoluteTime now) {
    clock_.set(now);
    timer().fire();
  }
  // The scheduled-by names of the power manager's entries.
  std::vector<std::string> entries() const {
    std::vector<std::string> names;
    for (const Value& entry : power_.entries())
      names.push_back(*entry.get(platform::kEntryScheduledByKey).asString());
    return names;
  }
  static std::string entry(AbsoluteTime date, const std::string& id) {
    return powerEventIdentifier(date, Value::dictionary({{"uniqueid", S(id)}})).value_or("");
  }

  ScopedZone zone_{"UTC"};
  fakes::FakeTimerFactory warnings_{clock_};
  nightjar::testing::FakePowerManager power_;
  QueueController* controller_ = nullptr;
  int zoneRefreshes_ = 0;
};

TEST_F(DateTimeControllerTest, QueuesByTriggerDateWithWakeEntriesAndWarnings) {
  add(dailyEvent("daily", hms(10, 0), "shutdown"));
  add(onceEvent("once", kStart + 1800, "wake"));
  EXPECT_GE(zoneRefreshes_, 2);
  EXPECT_EQ(idsOf(queueControllerCopyEvents(controller_)),
            (std::vector<std::string>{"once", "daily"}));
  EXPECT_EQ(triggerDate("daily"), kTen);
  EXPECT_EQ(timer().nextFireDate(), kStart + 1800);
  // A wake kind wakes at its date; an action the daemon carries out 30 s ahead.
  EXPECT_EQ(entries(),
            (std::vector<std::string>{entry(kTen - 30, "daily"), entry(kStart + 1800, "once")}));
  EXPECT_EQ(warnedFor("daily"), kTen);
  EXPECT_EQ(warnedFor("once"), kStart + 1800);
  add(onceEvent("once", kStart + 2400, "shutdown"));
  EXPECT_EQ(entries(),
            (std::vector<std::string>{entry(kTen - 30, "daily"), entry(kStart + 2370, "once")}));
  EXPECT_EQ(warnedFor("once"), kStart + 2400);
  EXPECT_EQ(timer().nextFireDate(), kStart + 2400);
  // Removing takes back the entries and the warning, and re-arms the timer.
  model::eventListRemove(model::eventListGet(), S("once"));
  EXPECT_EQ(entries(), (std::vector<std::string>{entry(kTen - 30, "daily")}));
  EXPECT_FALSE(warnedFor("once"));
  EXPECT_EQ(timer().nextFireDate(), kTen);
  model::eventListRemove(model::eventListGet(), S("daily"));
  EXPECT_TRUE(entries().empty());
  EXPECT_TRUE(timer().parked());
  // A once event in the past is not queued, but stays listed.
  add(onceEvent("past", kStart - 60));
  EXPECT_FALSE(queued("past"));
  EXPECT_TRUE(model::eventListFind(model::eventListGet(), S("past")));
  EXPECT_TRUE(timer().parked());
}

// The timer firing at the date, not yet past, or during the pause performs
// nothing; the completion queues the event afresh from the event list.
TEST_F(DateTimeControllerTest, PerformsOnceThenReschedulesFromTheCompletion) {
  add(dailyEvent("daily", hms(10, 0)));
  add(onceEvent("once", kTen));
  fireAt(kTen);
  EXPECT_TRUE(performed().empty());
  fireAt(kTen + 0.5);
  EXPECT_EQ(performed(), (std::vector<std::string>{"daily"}));
  timer().setNextFireDate(kTen);
  fireAt(kTen + 1);
  EXPECT_EQ(performed().size(), 1u);
  EXPECT_EQ(triggerDate("daily"), kTen);
  endPause();
  // The daily one is on its next day; the once one, due too, comes next and
  // is then dropped as past.
  EXPECT_EQ(triggerDate("daily"), kTen + kDay);
  ASSERT_TRUE(timer().due(clock_.now()));
  timer().fire();
  endPause();
  EXPECT_EQ(performed(), (std::vector<std::string>{"daily", "once"}));
  EXPECT_FALSE(queued("once"));
  EXPECT_EQ(timer().nextFireDate(), kTen + kDay);
}

// A step of the clock, posted after what it made due fired: a daily and a once
// wake, the clock run to `before`, set to `after`, then on for three hours.
TEST_F(DateTimeControllerTest, ClockChangesPerformEachOccurrenceOnceAndLoseNone) {
  core::followClockChanges(eventSchedulerGet(), this);
  const struct {
    const char* name;
    AbsoluteTime before, after, daily;
    std::optional<AbsoluteTime> once;    // its trigger date, when queued
    std::vector<std::string> performed;  // from the step on
  } cases[] = {
      {"forward over both", kStart, kTen + 3 * 3600, kTen + kDay, {}, {"daily", "once"}},
      {"back over both", kTen + 5400, kStart, kTen + kDay, {}, {}},
      {"back over one", kTen + 1800, kTen - 60, kTen + kDay, kTen + 3600, {"once"}},
      // Set back by more than a day, the clock is taken as right.
      {"back by days", kTen + 5400, kStart - 2 * kDay, kTen - 2 * kDay, kTen + 3600, {"daily"}},
  };
  const auto runTo = [this](AbsoluteTime now) {
    clock_.set(now);
    for (int i = 0; i < 9 && timer().due(now); ++i)
      timer().fire();
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string daily = std::string(c.name) + "d", once = std::string(c.name) + "o";
    clock_.set(kStart);
    add(dailyEvent(daily, hms(10, 0), "wake").with("name", S("daily")));
    add(onceEvent(once, kTen + 3600, "wake").with("name", S("once")));
    runTo(c.before);
    log_.lines.clear();
    runTo(c.after);
    runloop::localCenter().post(runloop::kClockChangedNotification, this);
    EXPECT_TRUE(log_.logged("The system clock was set; rescheduling events."));
    EXPECT_EQ(triggerDate(daily), c.daily);
    EXPECT_EQ(triggerDate(once), c.once);
    EXPECT_EQ(timer().nextFireDate(), std::min(c.daily, c.once.value_or(c.daily)));
    std::vector<std::string> wanted{entry(c.daily, daily), entry(c.once.value_or(0), once)};
    wanted.resize(c.once ? 2 : 1);
    EXPECT_EQ(entries(), wanted);
    runTo(c.after + 3 * 3600);
    EXPECT_EQ(performed(), c.performed);
    model::eventListRemoveAll(model::eventListGet());
  }
}

// Delay and cancel store the warning's copy, moved: performed then, the event
// still says when it was due and when it was warned; queued afresh after, it
// keeps neither the delay nor the skip.
TEST_F(DateTimeControllerTest, DelayAndCancelMoveTheOccurrenceAndKeepTheWarning) {
  const struct {
    Value event;
    bool cancel;  // else delayed by 600 s, counted from the trigger date
    AbsoluteTime due;
    std::optional<AbsoluteTime> after;
  } cases[] = {{onceEvent("once", kTen, "shutdown"), false, kTen + 600, {}},
               {dailyEvent("daily", hms(10, 0), "shutdown"), false, kTen + 600, kTen + kDay},
               {dailyEvent("skip", hms(10, 0), "shutdown"), true, kTen + kDay, kTen + 2 * kDay}};
  nc::NotificationController* warnings = nc::notificationControllerGet();
  add(onceEvent("twice", kTen));  // delays add up
  nc::notificationControllerDelay(warnings, S("twice"), 600);
  nc::notificationControllerDelay(warnings, S("twice"), 600);
  EXPECT_EQ(triggerDate("twice"), kTen + 1200);
  model::eventListRemoveAll(model::eventListGet());
  for (const auto& c : cases) {
    const Value id = model::eventUniqueID(c.event);
    const std::string name = *id.asString();
    SCOPED_TRACE(name);
    clock_.set(kStart);
    add(c.event);
    clock_.set(kTen - 600);
    warnings_.timer(0)->fire();
    c.cancel ? nc::notificationControllerCancel(warnings, id)
             : nc::notificationControllerDelay(warnings, id, 600);
    EXPECT_EQ(triggerDate(name), c.due);
    EXPECT_EQ(warnedFor(name), c.due);
    EXPECT_EQ(entries(), std::vector<std::string>{entry(c.due - 30, name)});
    EXPECT_EQ(timer().nextFireDate(), c.due);
    broadcasts_.broadcasts.clear();
    fireAt(c.due + 1);
    endPause();
    ASSERT_EQ(broadcasts_.broadcasts.size(), 2u);  // "event.willperform", "event.didperform"
    for (const auto& broadcast : broadcasts_.broadcasts) {
      EXPECT_EQ(broadcast.userInfo.get(nc::kTriggerDateKey), Value::date(kTen));
      EXPECT_EQ(broadcast.userInfo.get(nc::kNotifiedKey), Value::date(kTen - 600));
    }
    EXPECT_EQ(triggerDate(name), c.after);
    model::eventListRemove(model::eventListGet(), id);
  }
  // A cancelled once event leaves the queue, not the event list.
  clock_.set(kStart);
  add(onceEvent("gone", kTen, "shutdown"));
  ASSERT_TRUE(queued("gone"));
  nc::notificationControllerCancel(warnings, S("gone"));
  EXPECT_FALSE(queued("gone"));
  EXPECT_FALSE(warnedFor("gone"));
  EXPECT_TRUE(entries().empty());
  EXPECT_TRUE(model::eventListFind(model::eventListGet(), S("gone")));
}

// After a sleep, and for a queue restored after the daemon was down, what
// passed meanwhile is rescheduled, never performed; an occurrence being
// performed is left to its completion. Each arming of the timer makes the
// first event's wake entry again, so an entry that was lost (a failed write, a
// crash) comes back.
TEST_F(DateTimeControllerTest, WakeAndRestoreReschedulePassedEventsWithoutPerforming) {
  const std::function<void()> catchUps[] = {
      [] { postWake(); },
      [this] { queueControllerReplaceAll(controller_, queueControllerCopyEvents(controller_)); }};
  for (const auto& catchUp : catchUps) {
    clock_.set(kStart);
    add(dailyEvent("daily", hms(10, 0)));
    add(onceEvent("once", kTen + 60));
    add(onceEvent("later", kTen + 7200, "wake"));
    power_.cancel(kTen + 7200, entry(kTen + 7200, "later"), platform::kWakeEntry);
    log_.lines.clear();
    clock_.set(kTen + 3600);  // slept, or was down, through two
    catchUp();
    EXPECT_EQ(entries(), std::vector<std::string>{entry(kTen + 7200, "later")});
    EXPECT_TRUE(performed().empty());
    EXPECT_TRUE(log_.logged("Rescheduling event: daily."));
    EXPECT_TRUE(log_.logged("Rescheduling event: once."));
    EXPECT_FALSE(log_.logged("Rescheduling event: later."));
    EXPECT_EQ(triggerDate("daily"), kTen + kDay);
    EXPECT_FALSE(queued("once"));
    EXPECT_EQ(timer().nextFireDate(), kTen + 7200);
    model::eventListRemoveAll(model::eventListGet());
  }
  clock_.set(kStart);
  add(dailyEvent("daily", hms(10, 0)));
  add(onceEvent("missed", kTen + 60));
  fireAt(kTen + 3600);
  log_.lines.clear();
  postWake();
  EXPECT_FALSE(log_.logged("Rescheduling event: daily."));
  EXPECT_TRUE(log_.logged("Rescheduling event: missed."));
  EXPECT_EQ(triggerDate("daily"), kTen);
  endPause();
  EXPECT_EQ(triggerDate("daily"), kTen + kDay);
}

TEST_F(DateTimeControllerTest, DestroyReleasesOnlyAFirstShutdownEntry) {
  add(onceEvent("halt", kTen, "shutdown"));
  add(onceEvent("restart", kTen + 60, "restart"));
  eventSchedulerTearDown();
  queueControllerListTearDown();
  EXPECT_EQ(entries(), (std::vector<std::string>{entry(kTen + 30, "restart")}));
  // The handlers went with the controller.
  nc::notificationControllerCancel(nc::notificationControllerGet(), S("restart"));
  EXPECT_EQ(timers_.timer(0), nullptr);
}

}  // namespace
}  // namespace nightjar::scheduling
