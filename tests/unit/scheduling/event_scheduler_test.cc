#include <gtest/gtest.h>

#include "runloop/notification_center.h"
#include "scheduling/engine_testing.h"

namespace nightjar::scheduling {
namespace {

using namespace testing;
using Calls = std::vector<std::string>;
using Ids = std::vector<std::string>;

class EventSchedulerTest : public EngineFixture {
 protected:
  EventScheduler* start() {
    eventSchedulerSetUp(model::eventListGet(), list);
    posts = std::make_unique<PostRecorder>(eventSchedulerGet());
    return eventSchedulerGet();
  }
  static void put(const Value& event) { model::eventListStore(model::eventListGet(), event); }
  void clearCalls() {
    dateTime.calls.clear();
    idle.calls.clear();
  }
  std::size_t schedulerPosts() const { return posts->names().size(); }

  std::unique_ptr<PostRecorder> posts;
  RecordingLog log;
};

// Enabled events go to the controller of their trigger; a modified one moves,
// is updated in place or taken out when disabled; each change is announced.
TEST_F(EventSchedulerTest, AddAndModifyHandEventsToTheirControllers) {
  start();
  put(validEvent("daily"));
  put(inactiveEvent("idle"));
  put(validEvent("off").with("enabled", B(false)));
  put(onceEvent("e", 5000));
  EXPECT_EQ(queuedIds(byDate), (Ids{"daily", "e"}));
  EXPECT_EQ(queuedIds(byIdle), (Ids{"idle"}));
  EXPECT_EQ(schedulerPosts(), 4u);
  clearCalls();
  put(inactiveEvent("e"));
  put(inactiveEvent("e", 900));
  EXPECT_EQ(dateTime.calls, (Calls{"willRemove e", "didChange"}));
  EXPECT_EQ(idle.calls, (Calls{"willAdd e", "didChange", "willModify e e", "didChange"}));
  put(inactiveEvent("e", 900).with("enabled", B(false)));
  EXPECT_EQ(queuedIds(byIdle), (Ids{"idle"}));
  EXPECT_EQ(queuedIds(byDate), (Ids{"daily"}));
}

TEST_F(EventSchedulerTest, InvalidOrForeignNotificationsAreDroppedAsSpecified) {
  start();
  runloop::NotificationCenter& center = runloop::localCenter();
  const Value invalid = validEvent("bad").with("enabled", S("yes"));
  center.post(model::kEventsAddNotification, model::eventListGet(), invalid);
  EXPECT_EQ(log.texts(), (Ids{"Dropped invalid event within scheduler.",
                              "Invalid event: " + plist::describeValue(invalid)}));
  EXPECT_EQ(schedulerPosts(), 1u);  // dropped, yet announced
  // Another object, or no user information: silence.
  int other = 0;
  center.post(model::kEventsAddNotification, &other, validEvent("x"));
  center.post(model::kEventsAddNotification, model::eventListGet(), Value());
  EXPECT_TRUE(queuedIds(byDate).empty());
  EXPECT_EQ(schedulerPosts(), 1u);
}

TEST_F(EventSchedulerTest, DisablePurgesAndEnableRehandsEveryEnabledEvent) {
  EventScheduler* scheduler = start();
  put(validEvent("a"));
  put(inactiveEvent("b"));
  put(validEvent("c").with("enabled", B(false)));
  power.add(fakes::FakePowerManager::entryValue(2000, "quillon.nightjar.2000.gone", "wake"));
  power.add(fakes::FakePowerManager::entryValue(2000, "other.program", "wake"));
  clearCalls();
  eventSchedulerSetEnabled(scheduler, false);
  EXPECT_FALSE(eventSchedulerIsEnabled(scheduler));
  EXPECT_EQ(store.disk().get("eventscheduler.enabled"), B(false));
  EXPECT_EQ(dateTime.calls, (Calls{"willRemove a", "didChange"}));
  EXPECT_EQ(idle.calls, (Calls{"willRemove b", "didChange"}));
  ASSERT_EQ(power.entries().size(), 1u);
  EXPECT_EQ(power.entries()[0].get("scheduledby"), S("other.program"));
  put(validEvent("d"));  // changes no queue while disabled
  EXPECT_TRUE(queuedIds(byDate).empty());
  // A stray queued copy still goes when the list drops the event.
  queueControllerStore(byDate, validEvent("c"));
  model::eventListRemove(model::eventListGet(), S("c"));
  EXPECT_TRUE(queuedIds(byDate).empty());
  eventSchedulerSetEnabled(scheduler, true);
  EXPECT_TRUE(eventSchedulerIsEnabled(scheduler));
  EXPECT_FALSE(store.stores("eventscheduler.enabled"));  // the default is not stored
  EXPECT_EQ(queuedIds(byDate), (Ids{"a", "d"}));
  EXPECT_EQ(queuedIds(byIdle), (Ids{"b"}));
  // Setting the current value again writes nothing.
  const int writes = store.writes();
  eventSchedulerSetEnabled(scheduler, true);
  EXPECT_EQ(store.writes(), writes);
}

// A forced value wins over a set, and is read at creation.
TEST_F(EventSchedulerTest, AForcedValueWinsAndNothingElseHappens) {
  EventScheduler* scheduler = start();
  put(validEvent("a"));
  power.add(fakes::FakePowerManager::entryValue(2000, "quillon.nightjar.2000.a", "wake"));
  store.force("eventscheduler.enabled", B(true));
  clearCalls();
  eventSchedulerSetEnabled(scheduler, false);
  EXPECT_TRUE(eventSchedulerIsEnabled(scheduler));
  EXPECT_TRUE(dateTime.calls.empty());
  EXPECT_EQ(power.entries().size(), 1u);
  eventSchedulerTearDown();
  store.force("eventscheduler.enabled", B(false));
  EXPECT_FALSE(eventSchedulerIsEnabled(start()));
  EXPECT_TRUE(eventSchedulerIsEnabled(nullptr));
}

TEST_F(EventSchedulerTest, ResyncAndRescheduleStartFromTheListsCopy) {
  EventScheduler* scheduler = start();
  put(validEvent("b"));
  put(validEvent("a"));
  put(validEvent("off").with("enabled", B(false)));
  clearCalls();
  eventSchedulerResync(scheduler);
  // Each queued event leaves through willRemove; then the list, in its order.
  EXPECT_EQ(dateTime.calls, (Calls{"willRemove a", "didChange", "willRemove b", "didChange",
                                   "willAdd b", "didChange", "willAdd a", "didChange"}));
  // A copy the controller changed goes; the list's copy comes back through willAdd.
  queueControllerStore(byDate, validEvent("a", "private name"));
  clearCalls();
  eventSchedulerReschedule(scheduler, S("a"));
  EXPECT_EQ(dateTime.calls, (Calls{"willRemove a", "didChange", "willAdd a", "didChange"}));
  EXPECT_EQ(queueControllerFirstEvent(byDate).get("name"), S("a"));
  // An identifier the list no longer has is only taken back.
  queueControllerStore(byDate, validEvent("stray"));
  eventSchedulerReschedule(scheduler, S("stray"));
  EXPECT_EQ(queuedIds(byDate), (Ids{"a", "b"}));
  EXPECT_EQ(schedulerPosts(), 3u);  // the list changes only
}

// Only the monitor's time-zone notification resyncs; tear-down removes both of
// the scheduler's observations.
TEST_F(EventSchedulerTest, ATimeZoneChangeFromTheMonitorResyncs) {
  EventScheduler* scheduler = start();
  int monitor = 0, other = 0;
  const std::size_t before = runloop::localCenter().observationCount();
  eventSchedulerObserveTimeZone(scheduler, &monitor);
  put(validEvent("a"));
  clearCalls();
  runloop::localCenter().post("externalevents.wake", &monitor);
  runloop::localCenter().post("externalevents.timezone", &other);
  EXPECT_TRUE(dateTime.calls.empty());
  runloop::localCenter().post("externalevents.timezone", &monitor);
  EXPECT_EQ(dateTime.calls, (Calls{"willRemove a", "didChange", "willAdd a", "didChange"}));
  eventSchedulerTimeZoneChanged(nullptr, "externalevents.timezone");
  eventSchedulerTearDown();
  EXPECT_EQ(runloop::localCenter().observationCount(), before - 1);
}

}  // namespace
}  // namespace nightjar::scheduling
