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

TEST(Calendar, SplitsIntoLocalFieldsWithMondayAsOne) {
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
}

TEST(Calendar, NextDayCrossesMonthsLeapDaysAndYears) {
  EXPECT_EQ(calendarNextDay({2024, 2, 28}), (LocalDay{2024, 2, 29}));
  EXPECT_EQ(calendarNextDay({2026, 12, 31}), (LocalDay{2027, 1, 1}));
}

// 2026-03-29 in Berlin: 02:00 CET jumps to 03:00 CEST (01:00 UTC).
TEST(Calendar, TimeInsideASkippedHourIsTheFirstInstantAfterTheGap) {
  ScopedZone zone("Europe/Berlin");
  const LocalDay springForward{2026, 3, 29};
  EXPECT_EQ(calendarDateAt(springForward, hms(1, 59, 59)), utc(2026, 3, 29, 0, 59, 59));
  EXPECT_EQ(calendarDateAt(springForward, hms(2, 0)), utc(2026, 3, 29, 1));
  EXPECT_EQ(calendarDateAt(springForward, hms(2, 30)), utc(2026, 3, 29, 1));
  EXPECT_EQ(calendarDateAt(springForward, hms(2, 59, 59)), utc(2026, 3, 29, 1));
  EXPECT_EQ(calendarDateAt(springForward, hms(3, 0)), utc(2026, 3, 29, 1));
  EXPECT_EQ(calendarDateAt(springForward, hms(3, 0, 1)), utc(2026, 3, 29, 1, 0, 1));
}

// 2026-10-25 in Berlin: 03:00 CEST falls back to 02:00 CET (01:00 UTC), so
// 02:00 to 02:59:59 are shown twice. A guess from tm_isdst would pick either.
TEST(Calendar, TimeInsideARepeatedHourIsItsFirstInstance) {
  ScopedZone zone("Europe/Berlin");
  const LocalDay fallBack{2026, 10, 25};
  EXPECT_EQ(calendarDateAt(fallBack, hms(1, 59, 59)), utc(2026, 10, 24, 23, 59, 59));
  EXPECT_EQ(calendarDateAt(fallBack, hms(2, 0)), utc(2026, 10, 25, 0));
  EXPECT_EQ(calendarDateAt(fallBack, hms(2, 30)), utc(2026, 10, 25, 0, 30));
  EXPECT_EQ(calendarDateAt(fallBack, hms(2, 59, 59)), utc(2026, 10, 25, 0, 59, 59));
  EXPECT_EQ(calendarDateAt(fallBack, hms(3, 0)), utc(2026, 10, 25, 2));
}

TEST(Calendar, OtherShiftsFollowTheSameRule) {
  {
    // Lord Howe moves by 30 minutes: 02:00 +1030 jumps to 02:30 +11.
    ScopedZone zone("Australia/Lord_Howe");
    EXPECT_EQ(calendarDateAt({2026, 10, 4}, hms(2, 15)), utc(2026, 10, 3, 15, 30));
    // 01:30 to 01:59:59 repeat on 2026-04-05; the first is still +11.
    EXPECT_EQ(calendarDateAt({2026, 4, 5}, hms(1, 45)), utc(2026, 4, 4, 14, 45));
  }
  {
    // Santiago skips the first hour of 2026-09-06: midnight does not exist.
    ScopedZone zone("America/Santiago");
    EXPECT_EQ(calendarDateAt({2026, 9, 6}, 0), utc(2026, 9, 6, 4));
    EXPECT_EQ(calendarDateAt({2026, 9, 5}, 86400), utc(2026, 9, 6, 4));
    // ... and shows 23:00 to 23:59:59 of 2026-04-04 twice.
    EXPECT_EQ(calendarDateAt({2026, 4, 4}, hms(23, 30)), utc(2026, 4, 5, 2, 30));
  }
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
