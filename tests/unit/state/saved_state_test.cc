// The saved state and the save-on-change observer, over the ports fixture and
// every module the state is made of, real, with a fake idle time and a run loop.
#include "state/saved_state.h"

#include <random>
#include <string>
#include <vector>

#include "fakes/port_fakes.h"
#include "fakes/ports_fixture.h"
#include "model/event_list.h"
#include "model/model_testing.h"
#include "notifications/notification_controller.h"
#include "plist/xml.h"
#include "plist/xml_write_cache.h"
#include "runloop/notification_center.h"
#include "runloop/run_loop.h"
#include "scheduling/date_time_queue_controller.h"
#include "scheduling/event_scheduler.h"
#include "scheduling/inactivity_queue_controller.h"
#include "scheduling/queue_controller.h"
#include "state/save_on_change_observer.h"
#include "state/saved_state_size.h"

namespace nightjar::state::testing {
namespace {

using namespace nightjar::model::testing;

constexpr plist::AbsoluteTime kStart = nightjar::testing::kPortsStart;

class SavedStateTest : public nightjar::testing::PortsFixture {
 protected:
  void SetUp() override {
    PortsFixture::SetUp();
    setUpModules();
    loop_ = runloop::RunLoop::create();
    ASSERT_TRUE(saveOnChangeObserverCreate(loop_.get(), {[this] { ++dirtied_; }}));
    observer_ = saveOnChangeObserverGet();
  }
  void TearDown() override {
    saveOnChangeObserverDestroy();
    tearDownModules();
    PortsFixture::TearDown();
  }

  // Main's order: event list, notification controller, queue controllers.
  void setUpModules() {
    model::eventListSetUp();
    notifications::notificationControllerCreate(clock_, timers_.timerFactory(),
                                                [](const Value&) {});
    scheduling::queueControllerListSetUp();
    scheduling::QueueControllerList* list = scheduling::queueControllerListGet();
    scheduling::queueControllerListAppend(
        list, scheduling::dateTimeQueueControllerCreate(clock_, timers_.timerFactory(), {}));
    scheduling::queueControllerListAppend(
        list, scheduling::inactivityQueueControllerCreate(&idle_, clock_, timers_.timerFactory()));
  }
  void tearDownModules() {
    model::eventListTearDown();
    scheduling::queueControllerListTearDown();
    notifications::notificationControllerDestroy();
  }

  // The controller that takes `event`: "DateTime" for daily and once events.
  scheduling::QueueController* controllerFor(const Value& event) {
    return scheduling::queueControllerListFindForEvent(scheduling::queueControllerListGet(), event);
  }
  Value saved() { return preferences_.disk().get(persistence::kEngineKey); }
  std::vector<std::string> eventIds() {
    return idsOf(model::eventListCopyPublic(model::eventListGet()));
  }

  void post() { runloop::localCenter().post("test.change", this); }
  void pass() { saveOnChangeObserverRunPass(observer_); }

  nightjar::testing::FakeIdleTimeSource idle_{clock_};
  std::unique_ptr<runloop::RunLoop> loop_;
  SaveOnChangeObserver* observer_ = nullptr;
  int dirtied_ = 0;
};

TEST_F(SavedStateTest, AnEmptyEngineStillHoldsTheThreeKeys) {
  EXPECT_TRUE(persistenceSave());
  EXPECT_EQ(saved(), Dict({{"events", A({})},
                           {"notifications", A({})},
                           {"queues", Dict({{"DateTime", A({})}, {"Inactivity", A({})}})}}));
  // Without modules the state is the empty dictionary, which is not stored.
  tearDownModules();
  EXPECT_EQ(persistenceCopyState(), Dict({}));
  EXPECT_TRUE(persistenceSave());
  EXPECT_FALSE(preferences_.stores(persistence::kEngineKey));
  setUpModules();
}

TEST_F(SavedStateTest, RoundTripDropsPrivateKeysOfEventsButKeepsThoseOfQueues) {
  model::eventListStore(model::eventListGet(), validEvent("b").with("_Private", S("x")));
  model::eventListStore(model::eventListGet(), validEvent("a"));
  const Value once = onceEvent("c", kStart + 3600);
  ASSERT_GE(scheduling::queueControllerStore(controllerFor(once), once), 0);
  notifications::notificationControllerAddPending(notifications::notificationControllerGet(),
                                                  validEvent("d").with("_Mark", S("m")),
                                                  kStart + 600);
  ASSERT_TRUE(persistenceSave());
  const Value state = saved();
  EXPECT_EQ(state.get(kEventsKey), A({validEvent("a"), validEvent("b")}));
  const Value pending = state.get(kNotificationsKey).at(0);
  EXPECT_EQ(pending.get("_Mark"), S("m"));
  EXPECT_EQ(pending.get(notifications::kTriggerDateKey), D(kStart + 600));
  EXPECT_NE(state.get(kQueuesKey).get("DateTime").at(0), once) << "with its private keys";
  tearDownModules();
  setUpModules();
  persistenceRestore();
  EXPECT_EQ(persistenceCopyState().get(kEventsKey), state.get(kEventsKey));
  // The date-time controller may warn afresh about its restored queue.
  EXPECT_EQ(
      notifications::notificationControllerCopyState(notifications::notificationControllerGet())
          .at(0),
      pending);
  EXPECT_EQ(scheduling::queueControllerIndexOf(controllerFor(once), S("c")), 0);
}

TEST_F(SavedStateTest, AnIncompleteStateOrEngineRestoresNothing) {
  model::eventListStore(model::eventListGet(), validEvent("a"));
  ASSERT_TRUE(persistenceSave());
  const Value full = saved();
  tearDownModules();
  setUpModules();
  persistenceApplyState(full.without(kNotificationsKey));
  persistenceApplyState(full.without(kEventsKey));
  persistenceApplyState(full.without(kQueuesKey));
  persistenceApplyState(A({full}));
  EXPECT_FALSE(persistenceApplyState(Value()));
  EXPECT_TRUE(eventIds().empty());
  // Every module must exist.
  notifications::notificationControllerDestroy();
  persistenceApplyState(full);
  notifications::notificationControllerCreate(clock_, timers_.timerFactory(), [](const Value&) {});
  EXPECT_TRUE(eventIds().empty());
  // A stored engine that is not a dictionary reads as the default.
  preferences_.changeExternally(persistence::kEngineKey, A({full}));
  EXPECT_TRUE(persistenceRestore().isNone());
  EXPECT_TRUE(eventIds().empty());
  preferences_.changeExternally(persistence::kEngineKey, full);
  EXPECT_EQ(persistenceRestore(), full);
  EXPECT_EQ(eventIds(), (std::vector<std::string>{"a"}));
}

TEST_F(SavedStateTest, MembersOfTheWrongTypesAreSkippedWithoutHarm) {
  RecordingLog log;
  model::eventListStore(model::eventListGet(), validEvent("kept"));
  persistenceApplyState(Dict({{"events", S("x")}, {"queues", A({})}, {"notifications", I(3)}}));
  EXPECT_EQ(eventIds(), (std::vector<std::string>{"kept"}));
  // Right containers, wrong members: each module takes what it can.
  persistenceApplyState(
      Dict({{"events", A({S("junk"), Dict({{"uniqueid", I(1)}}), validEvent("n")})},
            {"queues", Dict({{"DateTime", S("bad")}, {"Inactivity", A({I(1), A({})})}})},
            {"notifications", A({S("x"), Dict({}), R(2)})}}));
  EXPECT_EQ(eventIds(), (std::vector<std::string>{"n"}));
  EXPECT_EQ(
      notifications::notificationControllerCopyState(notifications::notificationControllerGet()),
      A({}));
}

// Over seeded set, remove, delay, cancel and timer steps, a write from kept
// forms equals a fresh write, and the keep holds the state's records and an eighth.
TEST_F(SavedStateTest, AWriteFromKeptFormsEqualsAFreshWriteAfterEachChange) {
  scheduling::eventSchedulerSetUp(model::eventListGet(), scheduling::queueControllerListGet());
  notifications::NotificationController* warnings = notifications::notificationControllerGet();
  const Value everyDay = A({S("monday"), S("tuesday"), S("wednesday"), S("thursday"), S("friday"),
                            S("saturday"), S("sunday")});
  std::mt19937 random(17);
  auto pick = [&random](int count) { return static_cast<int>(random() % count); };
  plist::XmlWriteCache cache;
  for (int step = 0; step < 400; ++step) {
    const std::string id = "e" + std::to_string(pick(8));
    const int action = pick(6);  // 0, 1: set; 2: remove; 3: delay; 4: cancel; 5: fire, due or early
    if (action <= 1) {
      const Value daily =
          Dict({{"type", S("daily")}, {"secondsfrommidnight", I(pick(86400))}, {"days", everyDay}});
      model::eventListStore(
          model::eventListGet(),
          action == 0 ? validEvent(id, "n" + std::to_string(pick(4))).with("trigger", daily)
                      : onceEvent(id, clock_.now() + pick(7200)));
    } else if (action == 2) {
      model::eventListRemove(model::eventListGet(), S(id));
    } else if (action == 3) {
      notifications::notificationControllerDelay(warnings, S(id), 60.0 * (1 + pick(5)));
    } else if (action == 4) {
      notifications::notificationControllerCancel(warnings, S(id));
    } else {
      clock_.advance(pick(3600));
      for (std::size_t i = 0; i < timers_.created(); ++i)
        if (fakes::FakeTimer* timer = timers_.timer(i); timer && timer->armed() && !timer->parked())
          timer->fire();
    }
    const Value document = Dict({{"engine", persistenceCopyState()}, {"setting", R(900)}});
    ASSERT_EQ(plist::writeXml(document, cache), plist::writeXml(document)) << "step " << step;
    EXPECT_LE(cache.size(), 27u) << "step " << step;
  }
  scheduling::eventSchedulerTearDown();
}

// Under a limit of 16 000 bytes (15 000 less the reserve), changes are admitted to its
// last byte and not one further, until a save measures the state afresh.
TEST_F(SavedStateTest, ChangesAreAdmittedUpToTheLastByteOfTheLimit) {
  preferences_.limitStoredBytes(16000);
  savedStateSizeSaved();
  const std::size_t room = 15000 - savedStateProjectedBytes();
  EXPECT_FALSE(savedStateAdmits(room + 1));
  EXPECT_TRUE(savedStateAdmits(room));
  EXPECT_FALSE(savedStateAdmits(1));
  savedStateSizeSaved();
  EXPECT_TRUE(savedStateAdmits(1));
  savedStateSizeSaved();
}

TEST_F(SavedStateTest, EachPassWithNotificationsEndsWithOneSave) {
  EXPECT_TRUE(saveOnChangeObserverCreate(loop_.get()));  // a second create changes nothing
  EXPECT_EQ(saveOnChangeObserverGet(), observer_);
  pass();
  EXPECT_EQ(preferences_.writes(), 0);
  model::eventListStore(model::eventListGet(), validEvent("a"));  // posts "events.add"
  post();
  EXPECT_EQ(dirtied_, 2);
  pass();
  pass();
  EXPECT_EQ(preferences_.writes(), 1);
  EXPECT_FALSE(saveOnChangeObserverIsDirty(observer_));  // saving posted nothing
  // A pass that leaves the state as saved writes nothing.
  post();
  EXPECT_TRUE(saveOnChangeObserverIsDirty(observer_));
  pass();
  EXPECT_EQ(preferences_.writes(), 1);
  EXPECT_FALSE(saveOnChangeObserverIsDirty(observer_));
  // Destroyed, the observer no longer listens.
  saveOnChangeObserverDestroy();
  post();
  EXPECT_EQ(dirtied_, 3);
}

TEST_F(SavedStateTest, AFailedSaveKeepsTheLastFileIsLoggedOnceAndRetried) {
  RecordingLog log;
  post();
  pass();
  const Value good = saved();
  preferences_.failWrites(true);
  model::eventListStore(model::eventListGet(), validEvent("a"));
  pass();
  pass();  // retried without a new change
  EXPECT_EQ(preferences_.writes(), 3);
  EXPECT_EQ(saved(), good);
  EXPECT_EQ(log.lines.size(), 1u);
  preferences_.failWrites(false);
  pass();
  EXPECT_EQ(saved().get(kEventsKey).count(), 1u);
  EXPECT_FALSE(saveOnChangeObserverIsDirty(observer_));
  // A new fault is a new line.
  preferences_.failWrites(true);
  model::eventListStore(model::eventListGet(), validEvent("b"));
  pass();
  EXPECT_EQ(log.lines.size(), 2u);
}

TEST_F(SavedStateTest, AStartFromTheReadStateWritesOnlyWhatLoadingChanged) {
  const Value read = persistenceCopyState();  // loading gives the second its queues
  for (const Value& engine : {read, read.with(kQueuesKey, Dict({}))}) {
    preferences_.changeExternally(persistence::kEngineKey, engine);
    saveOnChangeObserverStartFrom(observer_, persistenceRestore());
    post();
    pass();
    EXPECT_EQ(preferences_.writes(), engine == read ? 0 : 1);
  }
}

TEST_F(SavedStateTest, TheRunLoopSavesAtTheEndOfAPass) {
  auto timer = loop_->addTimer([this] {
    model::eventListStore(model::eventListGet(), validEvent("a"));
    loop_->stop();
  });
  timer->setNextFireDate(runloop::systemClock().now());
  EXPECT_EQ(loop_->run(), 0);
  EXPECT_EQ(preferences_.writes(), 1);
}

}  // namespace
}  // namespace nightjar::state::testing
