// A sweep over the installed zone data: for every transition from 2000 to
// 2040 in zones with unusual shifts, a daily event at times in and around the
// skipped or repeated interval is placed exactly once on every flagged day, at
// the instant the daylight-saving rule of scheduling/calendar.h names.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <vector>

#include "fakes/recording_log_sink.h"
#include "scheduling/calendar.h"
#include "scheduling/date_time_trigger.h"
#include "scheduling/engine_testing.h"

namespace nightjar::scheduling {
namespace {

using namespace testing;
using Unix = std::int64_t;  // seconds, as the zone data counts them

long offsetAt(Unix u) {
  const std::time_t t = static_cast<std::time_t>(u);
  std::tm fields{};
  localtime_r(&t, &fields);
  return fields.tm_gmtoff;
}

struct Transition {
  Unix at;  // first second of the new offset
  long before, after;
};

// Transitions of these zones are months apart: a 6-hour step finds each.
std::vector<Transition> transitionsBetween(Unix from, Unix to) {
  constexpr Unix kStep = 6 * 3600;
  std::vector<Transition> found;
  for (Unix t = from; t < to; t += kStep) {
    if (offsetAt(t + kStep) == offsetAt(t))
      continue;
    Unix lo = t, hi = t + kStep;
    while (hi - lo > 1) {
      const Unix middle = lo + (hi - lo) / 2;
      (offsetAt(middle) == offsetAt(t) ? lo : hi) = middle;
    }
    found.push_back({hi, offsetAt(t), offsetAt(hi)});
  }
  return found;
}

AbsoluteTime fromUnix(Unix u) {
  return runloop::fromUnixSeconds(static_cast<double>(u));
}

// Where the rule places the reading `wall` (local seconds counted as if UTC)
// on the day of the transition `tr`.
Unix expectedInstant(const Transition& tr, Unix wall) {
  const Unix wallBefore = tr.at + tr.before, wallAfter = tr.at + tr.after;
  if (tr.after > tr.before && wall >= wallBefore && wall < wallAfter)
    return tr.at;  // skipped: the first instant after the gap
  return wall < std::max(wallBefore, wallAfter) ? wall - tr.before : wall - tr.after;
}

int weekdayOf(LocalDay day) {
  return *calendarWeekday(*calendarDateAt(day, kSecondsPerDay / 2));
}

// The faults of one daily time around `tr`, flagged every day or on the
// transition day's weekday only: a day without exactly the occurrences its flag
// asks for, one away from the transition day at another time of day, and the
// transition day's away from the rule's instant.
int faultsAround(const Transition& tr, Unix wall, bool everyDay) {
  static const char* const kNames[] = {"monday", "tuesday",  "wednesday", "thursday",
                                       "friday", "saturday", "sunday"};
  const std::time_t wallTime = static_cast<std::time_t>(wall);
  std::tm fields{};
  gmtime_r(&wallTime, &fields);
  const LocalDay day{fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday};
  const std::int64_t seconds = hms(fields.tm_hour, fields.tm_min, fields.tm_sec);
  const int weekday = weekdayOf(day);
  const Value event = everyDay ? dailyEvent("sweep", seconds)
                               : dailyEvent("sweep", seconds, "sleep", days({kNames[weekday - 1]}));
  const Unix span = (everyDay ? 4 : 10) * kSecondsPerDay;
  // From occurrence to occurrence, as the controller does after each perform.
  std::map<LocalDay, std::vector<AbsoluteTime>> byDay;
  for (auto t = dateTimeTriggerDate(event, fromUnix(tr.at - span));
       t && *t <= fromUnix(tr.at + span); t = dateTimeTriggerDate(event, *t))
    byDay[calendarSplit(*t)->date].push_back(*t);
  int faults = byDay[day].empty() || byDay[day].front() != fromUnix(expectedInstant(tr, wall));
  // The days at the span's edges are only partly searched: left out.
  const LocalDay last = calendarSplit(fromUnix(tr.at + span - 2 * kSecondsPerDay))->date;
  for (LocalDay d = calendarSplit(fromUnix(tr.at - span + 2 * kSecondsPerDay))->date; d <= last;
       d = calendarNextDay(d)) {
    const std::vector<AbsoluteTime>& found = byDay[d];
    faults += found.size() != (everyDay || weekdayOf(d) == weekday ? 1u : 0u);
    if (found.size() == 1 && d != day) {
      const LocalDateTime local = *calendarSplit(found.front());
      faults += hms(local.hour, local.minute, local.second) != seconds;
    }
  }
  return faults;
}

class DateTimeSweep : public ::testing::TestWithParam<const char*> {};

TEST_P(DateTimeSweep, EveryTransitionPlacesEachFlaggedDayExactlyOnce) {
  struct stat info {};
  if (stat((std::string("/usr/share/zoneinfo/") + GetParam()).c_str(), &info) != 0)
    GTEST_SKIP() << "no zone file for " << GetParam();
  ScopedZone zone(GetParam());
  nightjar::testing::RecordingLogSink log;
  const std::vector<Transition> transitions =
      transitionsBetween(static_cast<Unix>(runloop::toUnixSeconds(utc(2000, 1, 1))),
                         static_cast<Unix>(runloop::toUnixSeconds(utc(2040, 12, 31))));
  EXPECT_FALSE(transitions.empty());
  int faults = 0;
  for (const Transition& tr : transitions) {
    const Unix lo = tr.at + std::min(tr.before, tr.after);
    const Unix hi = tr.at + std::max(tr.before, tr.after);
    for (Unix wall : {lo - 3600, lo - 60, lo - 1, lo, lo + 1, (lo + hi) / 2, hi - 1, hi, hi + 1,
                      hi + 60, hi + 3600}) {
      faults += faultsAround(tr, wall, /*everyDay=*/true) + faultsAround(tr, wall, false);
    }
  }
  EXPECT_EQ(faults, 0);
  EXPECT_TRUE(log.lines.empty());
}

INSTANTIATE_TEST_SUITE_P(Zones, DateTimeSweep,
                         ::testing::Values("Europe/Berlin", "America/New_York",
                                           "Australia/Lord_Howe", "America/Santiago",
                                           "Asia/Tehran"));

}  // namespace
}  // namespace nightjar::scheduling
