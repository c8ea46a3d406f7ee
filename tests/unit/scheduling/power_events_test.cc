// Wake entries: identifiers, the per-action table, never duplicating, the
// bounded cancel, and the purge of this daemon's entries only.
#include <gtest/gtest.h>

#include "scheduling/engine_testing.h"

namespace nightjar::scheduling {
namespace {

using namespace testing;
using Call = nightjar::testing::FakePowerManager::Call;
using Calls = std::vector<Call>;

Value withAction(const std::string& id, const std::string& type) {
  return validEvent(id).with("action", Dict({{"type", S(type)}}));
}

using PowerEventsTest = EngineFixture;

TEST(PowerEventIdentifier, NamesTheProgramTheRoundedDateAndTheEventWithoutAManager) {
  EXPECT_EQ(powerEventIdentifier(250000000, validEvent("DF3A-17")),
            "quillon.nightjar.250000000.DF3A-17");
  EXPECT_EQ(powerEventIdentifier(250000000.6, validEvent("x")), "quillon.nightjar.250000001.x");
  EXPECT_EQ(powerEventIdentifier(250000000.4, validEvent("x")), "quillon.nightjar.250000000.x");
  EXPECT_EQ(powerEventIdentifier(1, validEvent("x").without("uniqueid")), std::nullopt);
  // Without a power manager nothing is made, cancelled or found.
  const Value wake = withAction("w", "wake");
  powerEventsSchedule("wake", 1e12, wake);
  powerEventsCancel("wake", 1e12, wake);
  powerEventsPurgeAll();
  EXPECT_FALSE(powerEventsExists("wake", 1e12, wake));
}

TEST_F(PowerEventsTest, EachActionGetsTheEntriesOfItsRow) {
  const double d = 200000000;
  const struct {
    std::string action;
    Calls expected;
  } rows[] = {
      {"wake", {{"schedule", d, "quillon.nightjar.200000000.e", "wake"}}},
      {"start up or wake", {{"schedule", d, "quillon.nightjar.200000000.e", "wakepoweron"}}},
      {"sleep", {}},
      {"shutdown", {{"schedule", d - 30, "quillon.nightjar.199999970.e", "wake"}}},
  };
  for (const auto& row : rows) {
    power.calls.clear();
    const Value event = withAction("e", row.action);
    powerEventsScheduleForEvent(event, d);
    EXPECT_EQ(power.calls, row.expected) << row.action;
    powerEventsCancelForEvent(event, d);
    EXPECT_TRUE(power.entries().empty()) << row.action;
  }
}

TEST_F(PowerEventsTest, AnEntryIsMadeOnlyInTheFutureNeverTwiceAndFoundByItsKeys) {
  const Value shutdown = withAction("s", "shutdown");
  const double now = clock.now();
  powerEventsScheduleForEvent(shutdown, now + 600);
  powerEventsScheduleForEvent(shutdown, now + 600);
  EXPECT_EQ(power.entries().size(), 1u);
  EXPECT_TRUE(powerEventsExists("wake", now + 570, shutdown));
  EXPECT_FALSE(powerEventsExists("wakepoweron", now + 570, shutdown));
  EXPECT_FALSE(powerEventsExists("wake", now + 600, shutdown));
  // A pre-wake date that has come, or is now, gets nothing; nor does an event
  // without an identifier.
  power.calls.clear();
  powerEventsScheduleForEvent(shutdown, now + 29);
  powerEventsScheduleForEvent(shutdown, now + 30);
  powerEventsSchedule("wake", now + 10, shutdown.without("uniqueid"));
  EXPECT_TRUE(power.calls.empty());
  // Found only in a list, under all three keys.
  const Value wake = withAction("w", "wake");
  const std::string id = "quillon.nightjar.100000100.w";
  power.add(Dict({{"eventtype", S("wake")}, {"scheduledby", S(id)}}));  // no "time"
  power.add(S("not an entry"));
  EXPECT_FALSE(powerEventsExists("wake", 100000100, wake));
  // "time" must be there but is not compared.
  power.add(Dict({{"eventtype", S("wake")}, {"scheduledby", S(id)}, {"time", D(5)}}));
  EXPECT_TRUE(powerEventsExists("wake", 100000100, wake));
  power.setUnavailable(true);
  EXPECT_FALSE(powerEventsExists("wake", 100000100, wake));
}

TEST_F(PowerEventsTest, CancelTriesAtMostFourTimesAndStopsOnceGone) {
  const Value wake = withAction("w", "wake");
  const double date = clock.now() + 100;
  powerEventsSchedule("wake", date, wake);
  power.calls.clear();
  powerEventsCancel("wake", date, wake);
  EXPECT_EQ(power.calls.size(), 1u);
  powerEventsCancel("wake", date, wake);  // no longer listed: no call
  EXPECT_EQ(power.calls.size(), 1u);
  powerEventsSchedule("wake", date, wake);
  power.ignoreCancels(true);
  power.calls.clear();
  powerEventsCancel("wake", date, wake);
  EXPECT_EQ(power.calls, Calls(4, {"cancel", date, "quillon.nightjar.1100.w", "wake"}));
  // A past entry that is still listed is cancelled too.
  power.ignoreCancels(false);
  clock.advance(1000);
  powerEventsCancel("wake", date, wake);
  EXPECT_TRUE(power.entries().empty());
}

TEST_F(PowerEventsTest, PurgeRemovesEveryEntryOfThisDaemonAndNoOther) {
  powerEventsScheduleForEvent(withAction("a", "wake"), clock.now() + 100);
  powerEventsScheduleForEvent(withAction("b", "restart"), clock.now() + 200);
  // Made before a restart, for an event no longer queued, and already past.
  power.add(
      nightjar::testing::FakePowerManager::entryValue(5, "quillon.nightjar.5.old", "wakepoweron"));
  const Value others[] = {
      nightjar::testing::FakePowerManager::entryValue(clock.now() + 50, "com.vendor.updater",
                                                      "wake"),
      nightjar::testing::FakePowerManager::entryValue(clock.now() + 50, "quillon.nightjarx.1.y",
                                                      "wake"),
      nightjar::testing::FakePowerManager::entryValue(clock.now() + 50, "quillon.nightjar", "wake"),
      Dict({{"scheduledby", S("quillon.nightjar.9.bad")}}),  // incomplete: left alone
  };
  for (const Value& other : others)
    power.add(other);
  const int copiesBefore = power.copies();
  powerEventsPurgeAll();
  EXPECT_EQ(power.entries(), plist::Array(std::begin(others), std::end(others)));
  EXPECT_EQ(power.copies() - copiesBefore, 2);  // two passes
}

}  // namespace
}  // namespace nightjar::scheduling
