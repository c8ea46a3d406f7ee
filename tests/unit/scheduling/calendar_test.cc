#include "scheduling/calendar.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "date_time_testing.h"

namespace nightjar::scheduling {
namespace {

using plist::AbsoluteTime;
using testing::hms;
using testing::ScopedZone;
using testing::utc;

TEST(Calendar, SplitsIntoLocalFieldsWithMondayAsOneAndCountsDays) {
  ScopedZone zone("UTC");
  // 2001-01-01 was a Monday; 2026-11-08 a Sunday.
  std::optional<LocalDateTime> reference = calendarSplit(0.25);
  ASSERT_TRUE(reference);
  EXPECT_EQ(reference->date, (LocalDay{2001, 1, 1}));
  EXPECT_EQ(reference->weekday, 1);
  EXPECT_DOUBLE_EQ(reference->fraction, 0.25);
  EXPECT_EQ(calendarWeekday(utc(2026, 11, 8, 23, 59, 59)), 7);
  EXPECT_EQ(calendarWeekday(utc(2026, 11, 9)), 1);
  // Before 2001 the fraction still counts forward from the whole second.
  std::optional<LocalDateTime> before = calendarSplit(-0.25);
  ASSERT_TRUE(before);
  EXPECT_EQ(before->date, (LocalDay{2000, 12, 31}));
  EXPECT_EQ(before->second, 59);
  EXPECT_DOUBLE_EQ(before->fraction, 0.75);

  ScopedZone berlin("Europe/Berlin");
  std::optional<LocalDateTime> summer = calendarSplit(utc(2026, 7, 1, 22, 30));
  ASSERT_TRUE(summer);
  EXPECT_EQ(summer->date, (LocalDay{2026, 7, 2}));
  EXPECT_EQ(summer->hour, 0);
  EXPECT_EQ(summer->minute, 30);
  EXPECT_EQ(summer->utcOffset, 7200);
  EXPECT_EQ(calendarNextDay({2024, 2, 28}), (LocalDay{2024, 2, 29}));
  EXPECT_EQ(calendarNextDay({2026, 12, 31}), (LocalDay{2027, 1, 1}));
}

// 2026-03-29 in Berlin: 02:00 CET jumps to 03:00 CEST (01:00 UTC); a time in
// the gap is the first instant after it. 2026-10-25: 03:00 CEST falls back to
// 02:00 CET (01:00 UTC); a repeated time is its first instance, where a guess
// from tm_isdst would pick either. Other zones' shifts: the sweep test.
TEST(Calendar, SkippedAndRepeatedTimesFollowTheRule) {
  ScopedZone zone("Europe/Berlin");
  const LocalDay spring{2026, 3, 29}, fall{2026, 10, 25};
  const struct {
    LocalDay day;
    std::int64_t seconds;
    AbsoluteTime expected;
  } cases[] = {
      {spring, hms(1, 59, 59), utc(2026, 3, 29, 0, 59, 59)},
      {spring, hms(2, 0), utc(2026, 3, 29, 1)},
      {spring, hms(2, 59, 59), utc(2026, 3, 29, 1)},
      {spring, hms(3, 0), utc(2026, 3, 29, 1)},
      {spring, hms(3, 0, 1), utc(2026, 3, 29, 1, 0, 1)},
      {fall, hms(1, 59, 59), utc(2026, 10, 24, 23, 59, 59)},
      {fall, hms(2, 0), utc(2026, 10, 25, 0)},
      {fall, hms(2, 59, 59), utc(2026, 10, 25, 0, 59, 59)},
      {fall, hms(3, 0), utc(2026, 10, 25, 2)},
  };
  for (const auto& c : cases)
    EXPECT_EQ(calendarDateAt(c.day, c.seconds), c.expected) << c.day.month << " " << c.seconds;
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

}  // namespace
}  // namespace nightjar::scheduling
