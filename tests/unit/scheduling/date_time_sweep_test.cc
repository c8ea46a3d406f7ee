// A sweep over the installed zone data: for every transition from 2000 to
// 2040 in zones with unusual shifts, a daily event inside the skipped or
// repeated interval, and at times just around it, is placed exactly once on
// every flagged day, at the instant the daylight-saving rule of
// scheduling/calendar.h names.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "date_time_testing.h"
#include "fakes/recording_log_sink.h"
#include "scheduling/calendar.h"
#include "scheduling/date_time_trigger.h"

namespace nightjar::scheduling {
namespace {

using namespace testing;

// Unix seconds, as the zone data counts them.
using Unix = std::int64_t;

constexpr Unix kStep = 6 * 3600;  // transitions of these zones are months apart
constexpr std::int64_t kDaySeconds = 86400;

long offsetAt(Unix u) {
  const std::time_t t = static_cast<std::time_t>(u);
  std::tm fields{};
  localtime_r(&t, &fields);
  return fields.tm_gmtoff;
}

struct Transition {
  Unix at;  // first second of the new offset
  long before;
  long after;
};

std::vector<Transition> transitionsBetween(Unix from, Unix to) {
  std::vector<Transition> found;
  for (Unix t = from; t < to; t += kStep) {
    const long before = offsetAt(t);
    if (offsetAt(t + kStep) == before)
      continue;
    Unix lo = t, hi = t + kStep;
    while (hi - lo > 1) {
      const Unix middle = lo + (hi - lo) / 2;
      (offsetAt(middle) == before ? lo : hi) = middle;
    }
    found.push_back({hi, before, offsetAt(hi)});
  }
  return found;
}

AbsoluteTime fromUnix(Unix u) {
  return runloop::fromUnixSeconds(static_cast<double>(u));
}

// Where the rule places the wall reading `wall` (local seconds counted as if
// UTC) on the day of the transition `tr`.
Unix expectedInstant(const Transition& tr, Unix wall) {
  const Unix wallBefore = tr.at + tr.before;  // the reading at which it changes
  const Unix wallAfter = tr.at + tr.after;
  if (tr.after > tr.before && wall >= wallBefore && wall < wallAfter)
    return tr.at;  // skipped: the first instant after the gap
  if (wall < std::max(wallBefore, wallAfter))
    return wall - tr.before;  // before it, or the first instance of a repeat
  return wall - tr.after;
}

struct Counts {
  int transitions = 0;
  int cases = 0;
  int skipped = 0;
  int doubled = 0;
  int misplaced = 0;
};

// Places the event from occurrence to occurrence, as the controller does
// after each perform, from `from` until past `until`; answers the number of
// occurrences on each local day.
std::map<LocalDay, std::vector<AbsoluteTime>> occurrences(const Value& event, AbsoluteTime from,
                                                          AbsoluteTime until) {
  std::map<LocalDay, std::vector<AbsoluteTime>> byDay;
  std::optional<AbsoluteTime> t = dateTimeTriggerDate(event, from);
  while (t && *t <= until) {
    byDay[calendarSplit(*t)->date].push_back(*t);
    t = dateTimeTriggerDate(event, *t);
  }
  return byDay;
}

// The calendar day of a wall reading.
LocalDay dayOfWall(Unix wall) {
  const std::time_t t = static_cast<std::time_t>(wall);
  std::tm fields{};
  gmtime_r(&t, &fields);
  return {fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday};
}

int weekdayOf(LocalDay day) {
  return *calendarWeekday(*calendarDateAt(day, kDaySeconds / 2));
}

// Counts the flagged days of the span around `tr` without exactly one
// occurrence, the days not flagged with any, and, away from the transition's
// own day `day`, occurrences whose wall-clock time is not `seconds`.
void countDays(const Transition& tr, Unix span, int weekday, LocalDay day, std::int64_t seconds,
               const std::map<LocalDay, std::vector<AbsoluteTime>>& byDay, Counts& counts) {
  // The days at the span's edges are only partly searched: left out.
  LocalDay d = calendarSplit(fromUnix(tr.at - span + 2 * kDaySeconds))->date;
  const LocalDay last = calendarSplit(fromUnix(tr.at + span - 2 * kDaySeconds))->date;
  for (; d <= last; d = calendarNextDay(d)) {
    const bool flagged = weekday == 0 || weekdayOf(d) == weekday;
    const auto found = byDay.find(d);
    const std::size_t n = found == byDay.end() ? 0 : found->second.size();
    counts.skipped += flagged && n == 0;
    counts.doubled += n > 1 || (!flagged && n > 0);
    if (n == 1 && d != day) {
      const LocalDateTime local = *calendarSplit(found->second.front());
      counts.misplaced += local.hour * 3600 + local.minute * 60 + local.second != seconds;
    }
  }
}

// One daily time around one transition, flagged every day, then flagged on
// the weekday of the transition's day only.
void sweepCase(const Transition& tr, Unix wall, Counts& counts) {
  static const char* const kNames[] = {"monday", "tuesday",  "wednesday", "thursday",
                                       "friday", "saturday", "sunday"};
  const LocalDay day = dayOfWall(wall);
  const std::int64_t seconds = ((wall % kDaySeconds) + kDaySeconds) % kDaySeconds;
  const int weekday = weekdayOf(day);
  for (int pass = 0; pass < 2; ++pass) {
    const bool everyDay = pass == 0;
    const Value event = everyDay
                            ? dailyEvent("sweep", seconds)
                            : dailyEvent("sweep", seconds, "sleep", days({kNames[weekday - 1]}));
    const Unix span = everyDay ? 4 * kDaySeconds : 10 * kDaySeconds;
    const auto byDay = occurrences(event, fromUnix(tr.at - span), fromUnix(tr.at + span));
    ++counts.cases;
    countDays(tr, span, everyDay ? 0 : weekday, day, seconds, byDay, counts);
    const auto onDay = byDay.find(day);
    if (onDay == byDay.end() || onDay->second.front() != fromUnix(expectedInstant(tr, wall)))
      ++counts.misplaced;
  }
}

class DateTimeSweep : public ::testing::TestWithParam<const char*> {};

TEST_P(DateTimeSweep, EveryTransitionPlacesEachFlaggedDayExactlyOnce) {
  const std::string zoneName = GetParam();
  if (!zoneInstalled(zoneName))
    GTEST_SKIP() << "no zone file for " << zoneName;
  ScopedZone zone(zoneName);
  nightjar::testing::RecordingLogSink log;
  Counts counts;
  const Unix from = static_cast<Unix>(runloop::toUnixSeconds(utc(2000, 1, 1)));
  const Unix to = static_cast<Unix>(runloop::toUnixSeconds(utc(2040, 12, 31)));
  for (const Transition& tr : transitionsBetween(from, to)) {
    ++counts.transitions;
    const Unix lo = tr.at + std::min(tr.before, tr.after);
    const Unix hi = tr.at + std::max(tr.before, tr.after);
    for (Unix wall : {lo - 3600, lo - 60, lo - 1, lo, lo + 1, (lo + hi) / 2, hi - 1, hi, hi + 1,
                      hi + 60, hi + 3600})
      sweepCase(tr, wall, counts);
  }
  std::printf("%-20s transitions %3d  cases %5d  skipped %d  doubled %d  misplaced %d\n",
              zoneName.c_str(), counts.transitions, counts.cases, counts.skipped, counts.doubled,
              counts.misplaced);
  EXPECT_GT(counts.transitions, 0);
  EXPECT_EQ(counts.skipped, 0);
  EXPECT_EQ(counts.doubled, 0);
  EXPECT_EQ(counts.misplaced, 0);
  EXPECT_TRUE(log.lines.empty());
}

INSTANTIATE_TEST_SUITE_P(Zones, DateTimeSweep,
                         ::testing::Values("Europe/Berlin", "America/New_York",
                                           "Australia/Lord_Howe", "America/Santiago",
                                           "Asia/Tehran"));

}  // namespace
}  // namespace nightjar::scheduling
