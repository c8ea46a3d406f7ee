// EventScheduler over the real event list, two recording controllers, a fake
// preference store and a fake power manager.
#include <gtest/gtest.h>

#include "fakes/fake_clock.h"
#include "fakes/fake_power_manager.h"
#include "fakes/fake_preferences_store.h"
#include "model/event_list.h"
#include "persistence/preferences.h"
#include "runloop/notification_center.h"
#include "scheduling/engine_testing.h"
#include "scheduling/event_scheduler.h"
#include "scheduling/power_events.h"

namespace nightjar::scheduling {
namespace {

using namespace testing;
using Calls = std::vector<std::string>;
using Ids = std::vector<std::string>;

class EventSchedulerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    persistence::preferencesSetStore(&store);
    powerEventsSetManager(&power, &clock);
    model::eventListSetUp();
    queueControllerListSetUp();
    controllers = queueControllerListGet();
    queueControllerListAppend(controllers,
                              recordingController("DateTime", &dateTime, {"once", "daily"}));
    queueControllerListAppend(controllers,
                              recordingController("Inactivity", &inactivity, {"inactive"}));
  }
  void TearDown() override {
    eventSchedulerTearDown();
    model::eventListTearDown();
    queueControllerListTearDown();
    powerEventsSetManager(nullptr, nullptr);
    persistence::preferencesSetStore(nullptr);
  }

  EventScheduler* start() {
    eventSchedulerSetUp(list(), controllers);
    posts = std::make_unique<PostRecorder>(eventSchedulerGet());
    return eventSchedulerGet();
  }
  static model::EventList* list() { return model::eventListGet(); }
  QueueController* controller(int index) {
    return queueControllerListFindForEvent(controllers,
                                           index == 0 ? validEvent("x") : inactiveEvent("x"));
  }
  void clearCalls() {
    dateTime.calls.clear();
    inactivity.calls.clear();
  }
  std::size_t schedulerPosts() const { return posts->names().size(); }

  fakes::FakePreferencesStore store;
  fakes::FakeClock clock{1000};
  fakes::FakePowerManager power;
  Recorder dateTime;
  Recorder inactivity;
  QueueControllerList* controllers = nullptr;
  std::unique_ptr<PostRecorder> posts;
  RecordingLog log;
};

// Enabled events go to the controller of their trigger; a modified one moves,
// is updated in place or taken out when disabled; each change is announced.
TEST_F(EventSchedulerTest, AddAndModifyHandEventsToTheirControllers) {
  start();
  model::eventListStore(list(), validEvent("daily"));
  model::eventListStore(list(), inactiveEvent("idle"));
  model::eventListStore(list(), validEvent("off").with("enabled", B(false)));
  EXPECT_EQ(queuedIds(controller(0)), (Ids{"daily"}));
  EXPECT_EQ(queuedIds(controller(1)), (Ids{"idle"}));
  EXPECT_EQ(posts->names(), (Ids{"scheduler.events", "scheduler.events", "scheduler.events"}));
  model::eventListStore(list(), onceEvent("e", 5000));
  clearCalls();
  posts->posts.clear();
  // once -> inactive: out of DateTime, into Inactivity.
  model::eventListStore(list(), inactiveEvent("e"));
  EXPECT_EQ(dateTime.calls, (Calls{"willRemove e", "didChange"}));
  EXPECT_EQ(inactivity.calls, (Calls{"willAdd e", "didChange"}));
  // Same controller: its willModify runs.
  model::eventListStore(list(), inactiveEvent("e", 900));
  EXPECT_EQ(inactivity.calls.back(), "didChange");
  EXPECT_EQ(inactivity.calls.at(2), "willModify e e");
  // Disabled: taken out of whichever controller holds it.
  model::eventListStore(list(), inactiveEvent("e", 900).with("enabled", B(false)));
  EXPECT_EQ(queuedIds(controller(1)), (Ids{"idle"}));
  EXPECT_EQ(queuedIds(controller(0)), (Ids{"daily"}));
  EXPECT_EQ(schedulerPosts(), 3u);
}

TEST_F(EventSchedulerTest, RemoveTakesTheEventBackEvenWhileDisabled) {
  EventScheduler* scheduler = start();
  model::eventListStore(list(), validEvent("a"));
  model::eventListRemove(list(), S("a"));
  EXPECT_TRUE(queuedIds(controller(0)).empty());
  eventSchedulerSetEnabled(scheduler, false);
  // A stray queued copy still goes when the list drops the event.
  model::eventListStore(list(), validEvent("b"));
  EXPECT_TRUE(queuedIds(controller(0)).empty());
  queueControllerStore(controller(0), validEvent("b"));
  model::eventListRemove(list(), S("b"));
  EXPECT_TRUE(queuedIds(controller(0)).empty());
  EXPECT_EQ(schedulerPosts(), 4u);
}

TEST_F(EventSchedulerTest, InvalidOrForeignNotificationsAreDroppedAsSpecified) {
  start();
  runloop::NotificationCenter& center = runloop::localCenter();
  const Value invalid = validEvent("bad").with("enabled", S("yes"));
  center.post(model::kEventsAddNotification, list(), invalid);
  EXPECT_TRUE(queuedIds(controller(0)).empty());
  EXPECT_EQ(log.texts(), (Ids{"Dropped invalid event within scheduler.",
                              "Invalid event: " + plist::describeValue(invalid)}));
  EXPECT_EQ(log.lines.at(0).first, LOG_ERR);
  EXPECT_EQ(log.lines.at(1).first, LOG_DEBUG);
  EXPECT_EQ(schedulerPosts(), 1u);  // dropped, yet announced
  // Another object, or no user information: silence.
  int other = 0;
  center.post(model::kEventsAddNotification, &other, validEvent("x"));
  center.post(model::kEventsAddNotification, list(), Value());
  EXPECT_TRUE(queuedIds(controller(0)).empty());
  EXPECT_EQ(schedulerPosts(), 1u);
}

TEST_F(EventSchedulerTest, DisablePurgesAndEnableRehandsEveryEnabledEvent) {
  EventScheduler* scheduler = start();
  model::eventListStore(list(), validEvent("a"));
  model::eventListStore(list(), inactiveEvent("b"));
  model::eventListStore(list(), validEvent("c").with("enabled", B(false)));
  power.add(fakes::FakePowerManager::entryValue(2000, "quillon.nightjar.2000.gone", "wake"));
  power.add(fakes::FakePowerManager::entryValue(2000, "other.program", "wake"));
  clearCalls();

  eventSchedulerSetEnabled(scheduler, false);
  EXPECT_FALSE(eventSchedulerIsEnabled(scheduler));
  EXPECT_EQ(store.disk().get("eventscheduler.enabled"), B(false));
  EXPECT_EQ(dateTime.calls, (Calls{"willRemove a", "didChange"}));
  EXPECT_EQ(inactivity.calls, (Calls{"willRemove b", "didChange"}));
  ASSERT_EQ(power.entries().size(), 1u);
  EXPECT_EQ(power.entries()[0].get("scheduledby"), S("other.program"));
  // Additions while disabled change no queue.
  model::eventListStore(list(), validEvent("d"));
  EXPECT_TRUE(queuedIds(controller(0)).empty());

  eventSchedulerSetEnabled(scheduler, true);
  EXPECT_TRUE(eventSchedulerIsEnabled(scheduler));
  EXPECT_FALSE(store.stores("eventscheduler.enabled"));  // the default is not stored
  EXPECT_EQ(queuedIds(controller(0)), (Ids{"a", "d"}));
  EXPECT_EQ(queuedIds(controller(1)), (Ids{"b"}));
  // Setting the current value again writes nothing.
  const int writes = store.writes();
  eventSchedulerSetEnabled(scheduler, true);
  EXPECT_EQ(store.writes(), writes);
}

TEST_F(EventSchedulerTest, AForcedValueWinsAndNothingElseHappens) {
  EventScheduler* scheduler = start();
  model::eventListStore(list(), validEvent("a"));
  power.add(fakes::FakePowerManager::entryValue(2000, "quillon.nightjar.2000.a", "wake"));
  store.force("eventscheduler.enabled", B(true));
  clearCalls();
  eventSchedulerSetEnabled(scheduler, false);
  EXPECT_TRUE(eventSchedulerIsEnabled(scheduler));
  EXPECT_TRUE(dateTime.calls.empty());
  EXPECT_EQ(power.entries().size(), 1u);
  // Read at creation, too.
  eventSchedulerTearDown();
  store.force("eventscheduler.enabled", B(false));
  EXPECT_FALSE(eventSchedulerIsEnabled(start()));
  EXPECT_TRUE(eventSchedulerIsEnabled(nullptr));
}

TEST_F(EventSchedulerTest, ResyncAndRescheduleStartFromTheListsCopy) {
  EventScheduler* scheduler = start();
  model::eventListStore(list(), validEvent("b"));
  model::eventListStore(list(), validEvent("a"));
  model::eventListStore(list(), validEvent("off").with("enabled", B(false)));
  clearCalls();
  eventSchedulerResync(scheduler);
  // Each queued event leaves through willRemove; then the list, in its order.
  EXPECT_EQ(dateTime.calls, (Calls{"willRemove a", "didChange", "willRemove b", "didChange",
                                   "willAdd b", "didChange", "willAdd a", "didChange"}));
  clearCalls();
  // A copy the controller changed goes; the list's copy comes back through willAdd.
  queueControllerStore(controller(0), validEvent("a", "private name"));
  clearCalls();
  eventSchedulerReschedule(scheduler, S("a"));
  EXPECT_EQ(dateTime.calls, (Calls{"willRemove a", "didChange", "willAdd a", "didChange"}));
  EXPECT_EQ(queueControllerListFindHolding(controllers, S("a")), controller(0));
  EXPECT_EQ(queueControllerCopyEvents(controller(0)).at(0).get("name"), S("a"));
  // An identifier the list no longer has is only taken back.
  queueControllerStore(controller(0), validEvent("stray"));
  eventSchedulerReschedule(scheduler, S("stray"));
  EXPECT_EQ(queuedIds(controller(0)), (Ids{"a", "b"}));
  EXPECT_EQ(schedulerPosts(), 3u);  // the list changes only
}

TEST_F(EventSchedulerTest, ATimeZoneChangeFromTheMonitorResyncs) {
  EventScheduler* scheduler = start();
  int monitor = 0;
  const std::size_t before = runloop::localCenter().observationCount();
  eventSchedulerObserveTimeZone(scheduler, &monitor);
  model::eventListStore(list(), validEvent("a"));
  clearCalls();
  runloop::localCenter().post("externalevents.wake", &monitor);
  int other = 0;
  runloop::localCenter().post("externalevents.timezone", &other);
  EXPECT_TRUE(dateTime.calls.empty());
  runloop::localCenter().post("externalevents.timezone", &monitor);
  EXPECT_EQ(dateTime.calls, (Calls{"willRemove a", "didChange", "willAdd a", "didChange"}));
  eventSchedulerTimeZoneChanged(nullptr, "externalevents.timezone");
  // Tear-down removes both of the scheduler's observations.
  eventSchedulerTearDown();
  EXPECT_EQ(runloop::localCenter().observationCount(), before - 1);
}

}  // namespace
}  // namespace nightjar::scheduling
