// The calendar arithmetic and the trigger dates computed with it.
#include "scheduling/date_time_trigger.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <tuple>

#include "fakes/recording_log_sink.h"
#include "plist/describe.h"
#include "scheduling/calendar.h"
#include "scheduling/engine_testing.h"

namespace nightjar::scheduling {
namespace {

using namespace testing;

// The local fields of `t`: day, hour, minute, second, fraction, weekday, offset.
auto fields(AbsoluteTime t) {
  const LocalDateTime f = calendarSplit(t).value_or(LocalDateTime{});
  return std::tuple(f.date, f.hour, f.minute, f.second, f.fraction, f.weekday, f.utcOffset);
}

// Skipped and repeated local times: the zone sweep.
TEST(Calendar, SplitsIntoLocalFieldsWithMondayAsOneAndCountsDays) {
  ScopedZone zone("UTC");
  // 2001-01-01 was a Monday; before it the fraction still counts forward.
  EXPECT_EQ(fields(0.25), std::tuple(LocalDay{2001, 1, 1}, 0, 0, 0, 0.25, 1, 0L));
  EXPECT_EQ(fields(-0.25), std::tuple(LocalDay{2000, 12, 31}, 23, 59, 59, 0.75, 7, 0L));
  EXPECT_EQ(calendarWeekday(utc(2026, 11, 8, 23, 59, 59)), 7);
  EXPECT_EQ(calendarWeekday(utc(2026, 11, 9)), 1);
  ScopedZone berlin("Europe/Berlin");
  EXPECT_EQ(fields(utc(2026, 7, 1, 22, 30)),
            std::tuple(LocalDay{2026, 7, 2}, 0, 30, 0, 0.0, 4, 7200L));
  EXPECT_EQ(calendarNextDay({2024, 2, 28}), (LocalDay{2024, 2, 29}));
  EXPECT_EQ(calendarNextDay({2026, 12, 31}), (LocalDay{2027, 1, 1}));
}

TEST(Calendar, DatesWithoutACalendarAnswerNothing) {
  ScopedZone zone("UTC");
  EXPECT_FALSE(calendarSplit(std::nan("")));
  EXPECT_FALSE(calendarSplit(std::numeric_limits<double>::infinity()));
  EXPECT_FALSE(calendarSplit(1e12));
  EXPECT_FALSE(calendarSplit(-1e12));
  EXPECT_FALSE(calendarDateAt({2026, 1, 1}, std::int64_t{1} << 50));
  EXPECT_FALSE(calendarDateAt({5000, 1, 1}, 0));
  EXPECT_TRUE(calendarDateAt({2026, 1, 1}, std::numeric_limits<std::int32_t>::max()));
}

TEST(DateTimeTrigger, PlacesEachEventAfterNowItsLeadConstraintDelayAndLastPerform) {
  ScopedZone zone("UTC");
  nightjar::testing::RecordingLogSink log;
  const AbsoluteTime ten = utc(2026, 11, 3, 10), nine = ten - 3600;  // a Tuesday
  const AbsoluteTime midnight = utc(2026, 11, 4), late = midnight - 30;
  constexpr double kDay = 86400;
  const Value daily = dailyEvent("daily", hms(10, 0));
  const Value noDays = dailyEvent("nodays", hms(10, 0), "sleep", days({}));
  const struct {
    const char* name;
    Value event;
    AbsoluteTime now;
    std::optional<AbsoluteTime> expected;
    std::optional<AbsoluteTime> performed = {};
  } rows[] = {
      {"midnight", dailyEvent("a", 0), late, midnight},
      {"86400 is the same midnight as 0", dailyEvent("a", 86400), late, midnight},
      {"a wake kind 120 s ahead at least", dailyEvent("a", 0, "wake"), late, midnight + kDay},
      {"a wake kind 121 s ahead", dailyEvent("a", 0, "wake"), late - 91, midnight},
      {"exactly now: next day", daily, ten, ten + kDay},
      {"a second ahead", dailyEvent("a", hms(10, 0, 1)), ten, ten + 1},
      {"unknown names ignored",
       dailyEvent("a", hms(10, 0), "sleep", days({"friday", "funday", "Monday"})), ten,
       utc(2026, 11, 6, 10)},
      {"the last of 8 days searched", dailyEvent("a", hms(10, 0), "sleep", days({"tuesday"})), ten,
       utc(2026, 11, 10, 10)},
      {"midnight ending the day", dailyEvent("a", 86400, "sleep", days({"wednesday"})), ten,
       midnight},
      {"no days", noDays, ten, {}},
      {"days not an array", dailyEvent("a", 0, "sleep", S("monday")), ten, {}},
      {"no trigger", event("a", Value()), ten, {}},
      {"inactive", event("a", Value::dictionary({{"type", S("inactive")}})), ten, {}},
      {"once without date", event("a", Value::dictionary({{"type", S("once")}})), ten, {}},
      {"no time of day: midnight",
       event("a", Value::dictionary({{"type", S("daily")}, {"days", everyDay()}})), ten, midnight},
      {"once soon", onceEvent("a", ten + 0.5), ten, ten + 0.5},
      {"no lead for once", onceEvent("a", ten + 1, "wake"), ten, ten + 1},
      {"cancelled occurrence", daily.with(kTriggerConstraintKey, Value::date(ten + 60)), nine,
       ten + kDay},
      {"constraint behind", daily.with(kTriggerConstraintKey, Value::date(nine - 5)), nine, ten},
      {"later delay", daily.with(kTriggerDelayKey, Value::date(ten + 300)), nine, ten + 300},
      {"earlier delay", daily.with(kTriggerDelayKey, Value::date(ten - 300)), nine, ten},
      {"once delayed", onceEvent("a", ten).with(kTriggerDelayKey, Value::date(ten + 600)), nine,
       ten + 600},
      {"a delay revives nothing", noDays.with(kTriggerDelayKey, Value::date(ten)), nine, {}},
      {"performed, clock set back", daily, ten - 60, ten + kDay, ten},
      {"earlier perform", onceEvent("a", ten), ten - 60, ten, ten - kDay},
      // Dropped with a line: those below only.
      {"performed once", onceEvent("a", ten), ten - 60, {}, ten},
      {"once past", onceEvent("past", ten - 60), ten, {}},
      {"once now", onceEvent("now", ten), ten, {}},
  };
  for (const auto& row : rows)
    EXPECT_EQ(dateTimeTriggerDate(row.event, row.now, row.performed), row.expected) << row.name;
  ASSERT_EQ(log.lines.size(), 3u);
  EXPECT_EQ(log.lines[1],
            std::pair(LOG_INFO, "Dropped event: past as trigger time: " +
                                    plist::describeValue(Value::date(ten - 60)) + ", has past."));
}

}  // namespace
}  // namespace nightjar::scheduling
