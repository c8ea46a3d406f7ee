#include "monitors/monitor_decisions.h"

#include <gtest/gtest.h>

#include "fakes/fake_console_user_source.h"
#include "fakes/fake_time_zone_source.h"

namespace nightjar::monitors {
namespace {

TEST(MonitorDecisionsTest, OnlyAUserSessionIsALogin) {
  EXPECT_EQ(consoleChangeFor(testing::userSession("alice", 1000, 1000)), ConsoleChange::Login);
  EXPECT_EQ(consoleChangeFor(testing::greeterSession()), ConsoleChange::Logout);
  EXPECT_EQ(consoleChangeFor(platform::ConsoleSession{}), ConsoleChange::Logout);
}

TEST(MonitorDecisionsTest, IdleSleepIsRefusedOnlyWhilePerforming) {
  using enum PowerMessage;
  EXPECT_EQ(answerPowerMessage(IdleSleepQuery, 0), PowerAnswer::Allow);
  EXPECT_EQ(answerPowerMessage(IdleSleepQuery, 1), PowerAnswer::Refuse);
  EXPECT_EQ(answerPowerMessage(IdleSleepQuery, 3), PowerAnswer::Refuse);
  EXPECT_EQ(answerPowerMessage(IdleSleepQuery, -1), PowerAnswer::Allow);
  // A sleep already decided, and a wake, are never refused.
  EXPECT_EQ(answerPowerMessage(SystemWillSleep, 1), PowerAnswer::Allow);
  EXPECT_EQ(answerPowerMessage(SystemHasPoweredOn, 1), PowerAnswer::Allow);
}

TEST(MonitorDecisionsTest, ZoneChangeNeedsAReadableDifferentZone) {
  const auto paris = testing::namedZone("Europe/Paris");
  auto updated = paris;  // same name, new rules: a tzdata update
  updated.data.push_back(0);
  EXPECT_FALSE(timeZoneChanged(paris, paris));
  EXPECT_TRUE(timeZoneChanged(paris, testing::namedZone("Asia/Tokyo")));
  EXPECT_TRUE(timeZoneChanged(paris, updated));
  EXPECT_TRUE(timeZoneChanged(std::nullopt, paris));
  EXPECT_FALSE(timeZoneChanged(paris, std::nullopt));
}

}  // namespace
}  // namespace nightjar::monitors
