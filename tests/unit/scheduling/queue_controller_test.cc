// QueueController, QueueControllerList, QueueTimer and the event scheduler
// that feeds them, against recording callback tables and fake timers.
#include <gtest/gtest.h>

#include "fakes/fake_timer.h"
#include "runloop/notification_center.h"
#include "scheduling/engine_testing.h"

namespace nightjar::scheduling {
namespace {

using namespace testing;
using Calls = std::vector<std::string>;
using Ids = std::vector<std::string>;

class QueueControllerTest : public ::testing::Test {
 protected:
  void TearDown() override { queueControllerDestroy(controller); }

  Recorder recorder;
  QueueController* controller = recordingController("Test", &recorder, {"once", "daily"});
};

TEST_F(QueueControllerTest, CreateHandsTheContextFromCreateToEveryCallback) {
  static Recorder made;
  QueueControllerCallbacks callbacks = recordingCallbacks(&recorder);
  callbacks.create = [](QueueController*) -> void* { return &made; };
  QueueController* created = queueControllerCreate("Made", callbacks, {});
  queueControllerStore(created, validEvent("a"));
  queueControllerDestroy(created);
  EXPECT_EQ(made.calls, (Calls{"willAdd a", "didChange", "destroy"}));
}

// An unchanged update posts nothing but still runs didChange.
TEST_F(QueueControllerTest, StoreAddsThenModifiesTheControllersOwnCopy) {
  PostRecorder posts(queueControllerQueue(controller));
  const Value event = validEvent("a");
  EXPECT_EQ(queueControllerStore(controller, event), 0);
  EXPECT_EQ(queueControllerStore(controller, event), 0);
  const std::size_t postsAfterFirstModify = posts.posts.size();
  queueControllerStore(controller, event);
  EXPECT_EQ(posts.posts.size(), postsAfterFirstModify);
  EXPECT_EQ(recorder.calls, (Calls{"willAdd a", "didChange", "willModify a a", "didChange",
                                   "willModify a a", "didChange"}));
  // The queued copy carries what the callbacks added; the caller's is untouched.
  EXPECT_EQ(queueControllerFirstEvent(controller).get("_Test.Mark"), S("modified"));
  EXPECT_FALSE(event.get("_Test.Mark"));
  EXPECT_EQ(queueControllerIndexOf(controller, S("zz")), -1);
  // The queue keeps the comparator's order.
  for (const char* id : {"c", "b"})
    queueControllerStore(controller, validEvent(id));
  EXPECT_EQ(queuedIds(controller), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(queueControllerStore(controller, validEvent("a", "d")), 2);
  EXPECT_EQ(queuedIds(controller), (std::vector<std::string>{"b", "c", "a"}));
}

TEST_F(QueueControllerTest, RefusalsLeaveTheQueueAndSkipDidChange) {
  recorder.refuseAdd = true;
  EXPECT_EQ(queueControllerStore(controller, validEvent("a")), -1);
  EXPECT_TRUE(queuedIds(controller).empty());
  recorder.refuseAdd = false;
  queueControllerStore(controller, validEvent("a"));
  recorder.refuseModify = true;
  EXPECT_EQ(queueControllerStore(controller, validEvent("a", "changed")), -1);
  EXPECT_EQ(queueControllerFirstEvent(controller).get("name"), S("a"));
  recorder.refuseRemove = {"a"};
  EXPECT_EQ(queueControllerRemove(controller, S("a")), -1);
  EXPECT_EQ(queuedIds(controller), (std::vector<std::string>{"a"}));
  // Events without an identifier never reach a callback.
  EXPECT_EQ(queueControllerStore(controller, validEvent("a").without("uniqueid")), -1);
  EXPECT_EQ(queueControllerStore(controller, S("not an event")), -1);
  EXPECT_EQ(queueControllerRemove(controller, Value()), -1);
  EXPECT_EQ(queueControllerRemove(controller, S("missing")), -1);
  EXPECT_EQ(recorder.calls,
            (Calls{"willAdd a", "willAdd a", "didChange", "willModify a a", "willRemove a"}));
  // Remove-all asks each event: a refused one stays, the ones after it still go.
  for (const char* id : {"b", "c"})
    queueControllerStore(controller, validEvent(id));
  recorder.calls.clear();
  recorder.refuseRemove = {"b"};
  queueControllerRemoveAll(controller);
  EXPECT_EQ(queuedIds(controller), (std::vector<std::string>{"b"}));
  EXPECT_EQ(recorder.calls,
            (Calls{"willRemove a", "didChange", "willRemove b", "willRemove c", "didChange"}));
}

TEST(QueueNull, EveryOperationAcceptsNoControllerOrTimer) {
  EXPECT_EQ(queueControllerName(nullptr), "");
  EXPECT_FALSE(queueControllerAccepts(nullptr, "once"));
  EXPECT_FALSE(queueControllerFirstEvent(nullptr));
  EXPECT_FALSE(queueControllerCopyEvents(nullptr));
  EXPECT_EQ(queueControllerStore(nullptr, validEvent("a")), -1);
  EXPECT_EQ(queueControllerRemove(nullptr, S("a")), -1);
  queueControllerRemoveAll(nullptr);
  queueControllerReplaceAll(nullptr, A({}));
  queueControllerDestroy(nullptr);
  // A table without acceptsTriggerType accepts nothing.
  QueueController* bare = queueControllerCreate("Bare", {}, {});
  EXPECT_FALSE(queueControllerAccepts(bare, "once"));
  EXPECT_EQ(queueControllerStore(bare, validEvent("a")), 0);
  queueControllerDestroy(bare);
  EXPECT_EQ(queueTimerCreate(bare, [](QueueTimer*) {}, {}), nullptr);
  EXPECT_EQ(queueTimerGetTimer(nullptr), nullptr);
  EXPECT_EQ(queueTimerGetController(nullptr), nullptr);
  queueTimerPark(nullptr);
  queueTimerDestroy(nullptr);
}

using QueueControllerListTest = EngineFixture;

TEST_F(QueueControllerListTest, RoutesEachEventToTheFirstControllerThatAcceptsItsTrigger) {
  EXPECT_EQ(queueControllerListFindForEvent(list, validEvent("d")), byDate);
  EXPECT_EQ(queueControllerListFindForEvent(list, inactiveEvent("i")), byIdle);
  const Value unknown = validEvent("u").with("trigger", Dict({{"type", S("hourly")}}));
  EXPECT_EQ(queueControllerListFindForEvent(list, unknown), nullptr);
  EXPECT_EQ(queueControllerListFindForEvent(list, validEvent("n").without("trigger")), nullptr);
  // Of two that accept, list order wins.
  static Recorder late;  // outlives the list, torn down after the test
  queueControllerListAppend(list, recordingController("Late", &late, {"inactive", "hourly"}));
  EXPECT_EQ(queueControllerListFindForEvent(list, inactiveEvent("i")), byIdle);
  EXPECT_EQ(queueControllerName(queueControllerListFindForEvent(list, unknown)), "Late");
}

TEST_F(QueueControllerListTest, FindsTheHolderAndRemovesFromEveryController) {
  queueControllerStore(byDate, validEvent("d"));
  queueControllerStore(byIdle, inactiveEvent("i"));
  EXPECT_EQ(queueControllerListFindHolding(list, S("i")), byIdle);
  EXPECT_EQ(queueControllerListFindHolding(list, S("d")), byDate);
  EXPECT_EQ(queueControllerListFindHolding(list, S("none")), nullptr);
  queueControllerListRemoveAll(list);
  EXPECT_EQ(dateTime.calls.back(), "didChange");
  EXPECT_EQ(idle.calls, (Calls{"willAdd i", "didChange", "willRemove i", "didChange"}));
  EXPECT_EQ(queueControllerListFindHolding(list, S("d")), nullptr);
}

TEST_F(QueueControllerListTest, SnapshotHoldsEachWritableQueueUnderItsName) {
  queueControllerStore(byDate, validEvent("d"));
  Value snapshot = queueControllerListCopyQueues(list);
  EXPECT_EQ(snapshot.count(), 2u);
  EXPECT_EQ(snapshot.get("DateTime").at(0).get("_Test.Mark"), S("added"));
  EXPECT_EQ(snapshot.get("Inactivity"), A({}));
  // Text that XML cannot carry (a control character, broken UTF-8) keeps a
  // queue out of the snapshot; the others stay in.
  for (const char* bad : {"bell\x07", "broken\xC3", "\xED\xA0\x80 surrogate"}) {
    queueControllerReplaceAll(byIdle, A({inactiveEvent("i").with("name", S(bad))}));
    snapshot = queueControllerListCopyQueues(list);
    EXPECT_FALSE(snapshot.get("Inactivity")) << bad;
    EXPECT_TRUE(snapshot.get("DateTime"));
  }
  queueControllerReplaceAll(
      byIdle, A({inactiveEvent("i").with("name", S("tab\tnew line\n\u00e9\U0001F600"))}));
  EXPECT_TRUE(queueControllerListCopyQueues(list).get("Inactivity"));
}

TEST_F(QueueControllerListTest, RestoreReplacesNamedQueuesAndLeavesTheOthers) {
  queueControllerStore(byIdle, inactiveEvent("kept"));
  queueControllerStore(byDate, validEvent("gone"));
  dateTime.calls.clear();
  // Taken as given: unsorted, unvalidated, without willAdd; a member without
  // an identifier is dropped.
  const Value restored =
      A({validEvent("z"), Dict({{"name", S("x")}}), Dict({{"uniqueid", S("y")}})});
  queueControllerListRestoreQueues(list, Dict({{"DateTime", restored}, {"Other", A({})}}));
  EXPECT_EQ(queuedIds(byDate), (std::vector<std::string>{"z", "y"}));
  EXPECT_EQ(queuedIds(byIdle), (std::vector<std::string>{"kept"}));
  EXPECT_EQ(dateTime.calls, (Calls{"willRemove gone", "didChange", "didReset"}));
  queueControllerListRestoreQueues(list, A({}));  // not a dictionary: nothing
  EXPECT_EQ(queuedIds(byDate).size(), 2u);
}

// Destroy runs with the queue still there, and without willRemove.
TEST_F(QueueControllerListTest, TearDownDestroysInListOrderWithoutWillRemove) {
  queueControllerStore(byDate, validEvent("d"));
  dateTime.calls.clear();
  queueControllerListTearDown();
  EXPECT_EQ(queueControllerListGet(), nullptr);
  EXPECT_EQ(dateTime.calls, (Calls{"destroy"}));
  EXPECT_EQ(idOf(dateTime.firstAtDestroy), "d");
  EXPECT_EQ(idle.calls, (Calls{"destroy"}));
  // Appending to no list destroys the controller rather than leaking it.
  Recorder orphan;
  queueControllerListAppend(nullptr, recordingController("Orphan", &orphan, {}));
  EXPECT_EQ(orphan.calls, (Calls{"destroy"}));
}

// Fired and not re-armed by the callout, the timer parks again, as a
// repeating timer.
TEST(QueueTimer, StartsParkedAndCallsTheCalloutWithItsHolder) {
  static std::vector<QueueTimer*> fired;
  fakes::FakeClock clock{1000};
  fakes::FakeTimerFactory timers{clock};
  const auto callout = [](QueueTimer* holder) { fired.push_back(holder); };
  QueueTimer* holder = queueTimerCreate(nullptr, callout, timers.timerFactory());
  fakes::FakeTimer* timer = timers.last();
  EXPECT_TRUE(timer->parked());
  timer->setNextFireDate(1500);
  timer->fire();
  EXPECT_EQ(fired, (std::vector<QueueTimer*>{holder}));
  EXPECT_TRUE(timer->parked());  // armed again by park(): fire() disarmed it
  queueTimerDestroy(holder);
  timers.setFailing(true);
  EXPECT_EQ(queueTimerCreate(nullptr, callout, timers.timerFactory()), nullptr);
}

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
  power.add(
      nightjar::testing::FakePowerManager::entryValue(2000, "quillon.nightjar.2000.gone", "wake"));
  power.add(nightjar::testing::FakePowerManager::entryValue(2000, "other.program", "wake"));
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
  power.add(
      nightjar::testing::FakePowerManager::entryValue(2000, "quillon.nightjar.2000.a", "wake"));
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
