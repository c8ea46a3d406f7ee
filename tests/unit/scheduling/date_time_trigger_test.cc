#include "scheduling/date_time_trigger.h"

#include <gtest/gtest.h>

#include "date_time_testing.h"
#include "fakes/recording_log_sink.h"
#include "plist/describe.h"

namespace nightjar::scheduling {
namespace {

using namespace testing;
using nightjar::testing::RecordingLogSink;

class DateTimeTrigger : public ::testing::Test {
 protected:
  ScopedZone zone_{"UTC"};
  RecordingLogSink log_;
};

TEST_F(DateTimeTrigger, DailyJustBeforeMidnightTakesTheLeadOfWakeKinds) {
  const AbsoluteTime now = utc(2026, 11, 3, 23, 59, 30);
  const AbsoluteTime midnight = utc(2026, 11, 4);
  EXPECT_EQ(dateTimeTriggerDate(dailyEvent("sleep", 0), now), midnight);
  // 86400 is the midnight at the end of each day: the same instants as 0.
  EXPECT_EQ(dateTimeTriggerDate(dailyEvent("sleep", 86400), now), midnight);
  // A wake kind is never placed less than 120 s ahead.
  EXPECT_EQ(dateTimeTriggerDate(dailyEvent("wake", 0, "wake"), now), midnight + 86400);
  EXPECT_EQ(dateTimeTriggerDate(dailyEvent("power", 86400, "start up or wake"), now),
            midnight + 86400);
  EXPECT_EQ(dateTimeTriggerDate(dailyEvent("wake", 0, "wake"), now - 91), midnight);
  EXPECT_TRUE(log_.lines.empty());
}

TEST_F(DateTimeTrigger, DailyAtExactlyNowIsPlacedOnTheNextFlaggedDay) {
  const AbsoluteTime now = utc(2026, 11, 3, 10);  // a Tuesday
  EXPECT_EQ(dateTimeTriggerDate(dailyEvent("daily", hms(10, 0)), now), now + 86400);
  EXPECT_EQ(dateTimeTriggerDate(dailyEvent("daily", hms(10, 0, 1)), now), now + 1);
  const Value fridays = days({"friday", "funday", "Monday"});
  EXPECT_EQ(dateTimeTriggerDate(dailyEvent("friday", hms(10, 0), "sleep", fridays), now),
            utc(2026, 11, 6, 10));
  // A Tuesday-only event at this very second waits a whole week: the last of
  // the 8 days searched.
  const Value tuesdays = days({"tuesday"});
  EXPECT_EQ(dateTimeTriggerDate(dailyEvent("week", hms(10, 0), "sleep", tuesdays), now),
            utc(2026, 11, 10, 10));
  EXPECT_EQ(dateTimeTriggerDate(dailyEvent("week", 86400, "sleep", days({"wednesday"})), now),
            utc(2026, 11, 4));
}

TEST_F(DateTimeTrigger, EventsThatCannotBePlacedAreRefusedWithoutALine) {
  const AbsoluteTime now = utc(2026, 11, 3, 10);
  EXPECT_FALSE(dateTimeTriggerDate(dailyEvent("nodays", 0, "sleep", days({})), now));
  EXPECT_FALSE(dateTimeTriggerDate(dailyEvent("notdays", 0, "sleep", S("monday")), now));
  EXPECT_FALSE(dateTimeTriggerDate(event("none", Value()), now));
  EXPECT_FALSE(
      dateTimeTriggerDate(event("other", Value::dictionary({{"type", S("inactive")}})), now));
  EXPECT_FALSE(dateTimeTriggerDate(event("nodate", Value::dictionary({{"type", S("once")}})), now));
  EXPECT_TRUE(log_.lines.empty());
  // Without a readable time of day, midnight.
  const Value noTime =
      event("notime", Value::dictionary({{"type", S("daily")}, {"days", everyDay()}}));
  EXPECT_EQ(dateTimeTriggerDate(noTime, now), utc(2026, 11, 4));
}

TEST_F(DateTimeTrigger, OnceInThePastOrNowIsDroppedWithALine) {
  const AbsoluteTime now = utc(2026, 11, 3, 10);
  EXPECT_EQ(dateTimeTriggerDate(onceEvent("soon", now + 0.5), now), now + 0.5);
  // No lead for a once event, even for a wake kind.
  EXPECT_EQ(dateTimeTriggerDate(onceEvent("wake", now + 1, "wake"), now), now + 1);
  EXPECT_FALSE(dateTimeTriggerDate(onceEvent("past", now - 60), now));
  EXPECT_FALSE(dateTimeTriggerDate(onceEvent("now", now), now));
  ASSERT_EQ(log_.lines.size(), 2u);
  EXPECT_EQ(log_.lines[0].first, LOG_INFO);
  EXPECT_EQ(log_.lines[0].second, "Dropped event: past as trigger time: " +
                                      plist::describeValue(Value::date(now - 60)) + ", has past.");
  EXPECT_EQ(log_.lines[1].second, "Dropped event: now as trigger time: " +
                                      plist::describeValue(Value::date(now)) + ", has past.");
}

TEST_F(DateTimeTrigger, ConstraintAndDelayMoveTheOccurrence) {
  const AbsoluteTime now = utc(2026, 11, 3, 9);
  const AbsoluteTime ten = utc(2026, 11, 3, 10);
  const Value daily = dailyEvent("daily", hms(10, 0));
  // A cancelled occurrence: the next one lies after it.
  EXPECT_EQ(dateTimeTriggerDate(daily.with(kTriggerConstraintKey, Value::date(ten + 60)), now),
            ten + 86400);
  // A constraint already behind the lead changes nothing.
  EXPECT_EQ(dateTimeTriggerDate(daily.with(kTriggerConstraintKey, Value::date(now - 5)), now), ten);
  // A delay later than the occurrence replaces it; an earlier one does not.
  EXPECT_EQ(dateTimeTriggerDate(daily.with(kTriggerDelayKey, Value::date(ten + 300)), now),
            ten + 300);
  EXPECT_EQ(dateTimeTriggerDate(daily.with(kTriggerDelayKey, Value::date(ten - 300)), now), ten);
  EXPECT_EQ(dateTimeTriggerDate(
                onceEvent("once", ten).with(kTriggerDelayKey, Value::date(ten + 600)), now),
            ten + 600);
  // A delay does not revive an event that has no occurrence.
  const Value noDays = dailyEvent("nodays", hms(10, 0), "sleep", days({}));
  EXPECT_FALSE(dateTimeTriggerDate(noDays.with(kTriggerDelayKey, Value::date(ten)), now));
}

TEST_F(DateTimeTrigger, APerformedOccurrenceIsNeverHandedOutAgain) {
  const AbsoluteTime ten = utc(2026, 11, 3, 10);
  // The clock was stepped back a minute after 10:00 was performed.
  const AbsoluteTime now = ten - 60;
  EXPECT_EQ(dateTimeTriggerDate(dailyEvent("daily", hms(10, 0)), now, ten), ten + 86400);
  EXPECT_FALSE(dateTimeTriggerDate(onceEvent("once", ten), now, ten));
  EXPECT_EQ(log_.lines.size(), 1u);
  // An earlier performed date does not hold back a later occurrence.
  EXPECT_EQ(dateTimeTriggerDate(onceEvent("once", ten), now, ten - 86400), ten);
}

}  // namespace
}  // namespace nightjar::scheduling
