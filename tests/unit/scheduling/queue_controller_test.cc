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
  ASSERT_NE(created, nullptr);
  EXPECT_EQ(queueControllerName(created), "Made");
  EXPECT_EQ(queueControllerContext(created), &made);
  queueControllerStore(created, validEvent("a"));
  queueControllerDestroy(created);
  EXPECT_EQ(made.calls, (Calls{"willAdd a", "didChange", "destroy"}));
  EXPECT_TRUE(recorder.calls.empty());
  // Without a create slot the table's initial context stays.
  EXPECT_EQ(queueControllerContext(controller), &recorder);
}

TEST_F(QueueControllerTest, StoreAddsThenModifiesTheControllersOwnCopy) {
  const Value event = validEvent("a");
  EXPECT_EQ(queueControllerStore(controller, event), 0);
  EXPECT_EQ(queueControllerStore(controller, event.with("name", S("a2"))), 0);
  EXPECT_EQ(recorder.calls, (Calls{"willAdd a", "didChange", "willModify a a", "didChange"}));
  // The queued copy carries what the callbacks added; the caller's is untouched.
  EXPECT_EQ(queueControllerFirstEvent(controller).get("_Test.Mark"), S("modified"));
  EXPECT_FALSE(event.get("_Test.Mark"));
  EXPECT_EQ(queueControllerIndexOf(controller, S("a")), 0);
  EXPECT_EQ(queueControllerIndexOf(controller, S("zz")), -1);
  // The queue keeps the comparator's order.
  for (const char* id : {"c", "b"})
    queueControllerStore(controller, validEvent(id));
  EXPECT_EQ(queuedIds(controller), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(queueControllerStore(controller, validEvent("a", "d")), 2);
  EXPECT_EQ(queuedIds(controller), (std::vector<std::string>{"b", "c", "a"}));
}

TEST_F(QueueControllerTest, AnUnchangedUpdatePostsNothingButStillRunsDidChange) {
  PostRecorder posts(queueControllerQueue(controller));
  queueControllerStore(controller, validEvent("a"));
  recorder.calls.clear();
  // willModify marks the copy "modified" once; the second store is then equal.
  queueControllerStore(controller, validEvent("a"));
  const std::size_t postsAfterFirstModify = posts.posts.size();
  queueControllerStore(controller, validEvent("a"));
  EXPECT_EQ(posts.posts.size(), postsAfterFirstModify);
  EXPECT_EQ(recorder.calls, (Calls{"willModify a a", "didChange", "willModify a a", "didChange"}));
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

TEST_F(QueueControllerTest, RemoveAllSendsEachEventThroughWillRemove) {
  for (const char* id : {"a", "b", "c"})
    queueControllerStore(controller, validEvent(id));
  recorder.calls.clear();
  recorder.refuseRemove = {"b"};
  queueControllerRemoveAll(controller);
  // A refused event stays; the ones after it still go.
  EXPECT_EQ(queuedIds(controller), (std::vector<std::string>{"b"}));
  EXPECT_EQ(recorder.calls,
            (Calls{"willRemove a", "didChange", "willRemove b", "willRemove c", "didChange"}));
}

TEST_F(QueueControllerTest, ReplaceAllRemovesThroughTheCallbacksThenSetsTheContentUnchecked) {
  queueControllerStore(controller, validEvent("old"));
  recorder.calls.clear();
  // Taken as given: unsorted, unvalidated, without willAdd; a member without
  // an identifier is dropped.
  queueControllerReplaceAll(
      controller, A({validEvent("z"), Dict({{"name", S("x")}}), Dict({{"uniqueid", S("y")}})}));
  EXPECT_EQ(queuedIds(controller), (std::vector<std::string>{"z", "y"}));
  EXPECT_EQ(recorder.calls, (Calls{"willRemove old", "didChange", "didReset"}));
}

TEST_F(QueueControllerTest, DestroyRunsDestroyWithTheQueueStillThereAndNoWillRemove) {
  queueControllerStore(controller, validEvent("a"));
  recorder.calls.clear();
  queueControllerDestroy(controller);
  controller = nullptr;
  EXPECT_EQ(recorder.calls, (Calls{"destroy"}));
  EXPECT_EQ(idOf(recorder.firstAtDestroy), "a");
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

class QueueControllerListTest : public ::testing::Test {
 protected:
  void SetUp() override {
    queueControllerListSetUp();
    list = queueControllerListGet();
    queueControllerListAppend(list, recordingController("DateTime", &dateTime, {"once", "daily"}));
    queueControllerListAppend(list, recordingController("Inactivity", &inactivity, {"inactive"}));
  }
  void TearDown() override { queueControllerListTearDown(); }

  QueueController* named(std::string_view name) {
    for (const Value& event : {onceEvent("x", 1), inactiveEvent("x")}) {
      QueueController* found = queueControllerListFindForEvent(list, event);
      if (queueControllerName(found) == name)
        return found;
    }
    return nullptr;
  }

  Recorder dateTime;
  Recorder inactivity;
  Recorder late;
  QueueControllerList* list = nullptr;
};

TEST_F(QueueControllerListTest, RoutesEachEventToTheFirstControllerThatAcceptsItsTrigger) {
  EXPECT_EQ(queueControllerName(queueControllerListFindForEvent(list, validEvent("d"))),
            "DateTime");
  EXPECT_EQ(queueControllerName(queueControllerListFindForEvent(list, onceEvent("o", 5))),
            "DateTime");
  EXPECT_EQ(queueControllerName(queueControllerListFindForEvent(list, inactiveEvent("i"))),
            "Inactivity");
  const Value unknown = validEvent("u").with("trigger", Dict({{"type", S("hourly")}}));
  EXPECT_EQ(queueControllerListFindForEvent(list, unknown), nullptr);
  EXPECT_EQ(queueControllerListFindForEvent(list, validEvent("n").without("trigger")), nullptr);
  // Of two that accept, list order wins.
  queueControllerListAppend(list, recordingController("Late", &late, {"inactive", "hourly"}));
  EXPECT_EQ(queueControllerName(queueControllerListFindForEvent(list, inactiveEvent("i"))),
            "Inactivity");
  EXPECT_EQ(queueControllerName(queueControllerListFindForEvent(list, unknown)), "Late");
}

TEST_F(QueueControllerListTest, FindsTheHolderAndRemovesFromEveryController) {
  queueControllerStore(named("DateTime"), validEvent("d"));
  queueControllerStore(named("Inactivity"), inactiveEvent("i"));
  EXPECT_EQ(queueControllerListFindHolding(list, S("i")), named("Inactivity"));
  EXPECT_EQ(queueControllerListFindHolding(list, S("d")), named("DateTime"));
  EXPECT_EQ(queueControllerListFindHolding(list, S("none")), nullptr);
  queueControllerListRemoveAll(list);
  EXPECT_EQ(dateTime.calls.back(), "didChange");
  EXPECT_EQ(inactivity.calls, (Calls{"willAdd i", "didChange", "willRemove i", "didChange"}));
  EXPECT_EQ(queueControllerListFindHolding(list, S("d")), nullptr);
}

TEST_F(QueueControllerListTest, SnapshotHoldsEachWritableQueueUnderItsName) {
  queueControllerStore(named("DateTime"), validEvent("d"));
  Value snapshot = queueControllerListCopyQueues(list);
  EXPECT_EQ(snapshot.count(), 2u);
  EXPECT_EQ(snapshot.get("DateTime").at(0).get("_Test.Mark"), S("added"));
  EXPECT_EQ(snapshot.get("Inactivity"), A({}));
  // Text that XML cannot carry (a control character, broken UTF-8) keeps a
  // queue out of the snapshot; the others stay in.
  for (const char* bad : {"bell\x07", "broken\xC3", "\xED\xA0\x80 surrogate"}) {
    queueControllerReplaceAll(named("Inactivity"), A({inactiveEvent("i").with("name", S(bad))}));
    snapshot = queueControllerListCopyQueues(list);
    EXPECT_FALSE(snapshot.get("Inactivity")) << bad;
    EXPECT_TRUE(snapshot.get("DateTime"));
  }
  queueControllerReplaceAll(
      named("Inactivity"),
      A({inactiveEvent("i").with("name", S("tab\tnew line\n\u00e9\U0001F600"))}));
  EXPECT_TRUE(queueControllerListCopyQueues(list).get("Inactivity"));
}

TEST_F(QueueControllerListTest, RestoreReplacesNamedQueuesAndLeavesTheOthers) {
  queueControllerStore(named("Inactivity"), inactiveEvent("kept"));
  queueControllerStore(named("DateTime"), validEvent("gone"));
  dateTime.calls.clear();
  queueControllerListRestoreQueues(
      list, Dict({{"DateTime", A({validEvent("b"), validEvent("a")})}, {"Other", A({})}}));
  EXPECT_EQ(queuedIds(named("DateTime")), (std::vector<std::string>{"b", "a"}));
  EXPECT_EQ(queuedIds(named("Inactivity")), (std::vector<std::string>{"kept"}));
  EXPECT_EQ(dateTime.calls, (Calls{"willRemove gone", "didChange", "didReset"}));
  queueControllerListRestoreQueues(list, A({}));  // not a dictionary: nothing
  EXPECT_EQ(queuedIds(named("DateTime")).size(), 2u);
}

TEST_F(QueueControllerListTest, TearDownDestroysInListOrderWithoutWillRemove) {
  queueControllerStore(named("DateTime"), validEvent("d"));
  dateTime.calls.clear();
  queueControllerListTearDown();
  EXPECT_EQ(queueControllerListGet(), nullptr);
  EXPECT_EQ(dateTime.calls, (Calls{"destroy"}));
  EXPECT_EQ(inactivity.calls, (Calls{"destroy"}));
  // Appending to no list destroys the controller rather than leaking it.
  Recorder orphan;
  queueControllerListAppend(nullptr, recordingController("Orphan", &orphan, {}));
  EXPECT_EQ(orphan.calls, (Calls{"destroy"}));
}

class QueueTimerTest : public ::testing::Test {
 protected:
  static void callout(QueueTimer* holder) { fired.push_back(holder); }

  void SetUp() override { fired.clear(); }

  fakes::FakeClock clock{1000};
  fakes::FakeTimerFactory timers{clock};
  QueueController* controller = reinterpret_cast<QueueController*>(0x1);
  static inline std::vector<QueueTimer*> fired;
};

TEST_F(QueueTimerTest, StartsParkedAndCallsTheCalloutWithItsHolder) {
  QueueTimer* holder = queueTimerCreate(controller, callout, timers.timerFactory());
  ASSERT_NE(holder, nullptr);
  fakes::FakeTimer* timer = timers.last();
  EXPECT_EQ(queueTimerGetTimer(holder), timer);
  EXPECT_EQ(queueTimerGetController(holder), controller);
  EXPECT_TRUE(timer->parked());
  EXPECT_GE(timer->nextFireDate(), clock.now() + 3153600000.0);

  timer->setNextFireDate(1500);
  timer->fire();
  EXPECT_EQ(fired, (std::vector<QueueTimer*>{holder}));
  // Fired and not re-armed by the callout: parked again, as a repeating timer.
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
