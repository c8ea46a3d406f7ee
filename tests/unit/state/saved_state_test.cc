#include <random>
#include <string>

#include "plist/xml.h"
#include "plist/xml_write_cache.h"
#include "scheduling/event_scheduler.h"
#include "state/saved_state.h"
#include "state/saved_state_size.h"
#include "state_testing.h"

namespace nightjar::state::testing {
namespace {

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

// Over seeded set, remove, delay, cancel and perform steps, a write from kept
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
    const int action = pick(6);  // 0, 1: set; 2: remove; 3: delay; 4: cancel; 5: perform
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
        if (fakes::FakeTimer* timer = timers_.timer(i); timer && timer->due(clock_.now()))
          timer->fire();
    }
    const Value document = Dict({{"engine", persistenceCopyState()}, {"setting", R(900)}});
    ASSERT_EQ(plist::writeXml(document, cache), plist::writeXml(document)) << "step " << step;
    EXPECT_LE(cache.size(), 27u) << "step " << step;
  }
  scheduling::eventSchedulerTearDown();
}

// Given a limit of 16 000 bytes (15 000 less the reserve), expect a change
// admitted up to the limit's last byte and not one byte further, until a save
// measures the state afresh.
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

}  // namespace
}  // namespace nightjar::state::testing
