#include "scheduling/calendar.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <tuple>

#include "scheduling/engine_testing.h"

namespace nightjar::scheduling {
namespace {

using plist::AbsoluteTime;
using testing::hms;
using testing::ScopedZone;
using testing::utc;

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

}  // namespace
}  // namespace nightjar::scheduling
