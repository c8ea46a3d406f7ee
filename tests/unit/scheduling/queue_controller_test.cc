// QueueController, QueueControllerList and QueueTimer against recording
// callback tables and fake timers.
#include <gtest/gtest.h>

#include "fakes/fake_clock.h"
#include "fakes/fake_timer.h"
#include "scheduling/engine_testing.h"

namespace nightjar::scheduling {
namespace {

using namespace testing;
using Calls = std::vector<std::string>;

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
  EXPECT_EQ(queueControllerContext(created), &made);
  queueControllerStore(created, validEvent("a"));
  queueControllerDestroy(created);
  EXPECT_EQ(made.calls, (Calls{"willAdd a", "didChange", "destroy"}));
  EXPECT_TRUE(recorder.calls.empty());
  // Without a create slot the table's initial context stays.
  EXPECT_EQ(queueControllerContext(controller), &recorder);
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
}

// A refused event stays; the ones after it still go.
TEST_F(QueueControllerTest, RemoveAllSendsEachEventThroughWillRemove) {
  for (const char* id : {"a", "b", "c"})
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
  QueueController* controller = reinterpret_cast<QueueController*>(0x1);
  const auto callout = [](QueueTimer* holder) { fired.push_back(holder); };
  QueueTimer* holder = queueTimerCreate(controller, callout, timers.timerFactory());
  fakes::FakeTimer* timer = timers.last();
  EXPECT_EQ(queueTimerGetTimer(holder), timer);
  EXPECT_EQ(queueTimerGetController(holder), controller);
  EXPECT_TRUE(timer->parked());
  timer->setNextFireDate(1500);
  timer->fire();
  EXPECT_EQ(fired, (std::vector<QueueTimer*>{holder}));
  EXPECT_TRUE(timer->armed());
  EXPECT_TRUE(timer->parked());
  timer->setNextFireDate(1600);
  queueTimerPark(holder);
  EXPECT_TRUE(timer->parked());
  queueTimerDestroy(holder);
  EXPECT_EQ(timers.timer(0), nullptr);
  timers.setFailing(true);
  EXPECT_EQ(queueTimerCreate(controller, callout, timers.timerFactory()), nullptr);
}

}  // namespace
}  // namespace nightjar::scheduling
