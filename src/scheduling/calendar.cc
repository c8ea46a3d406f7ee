#include "scheduling/calendar.h"

#include <cmath>
#include <ctime>
#include <vector>

#include "runloop/clock.h"

namespace nightjar::scheduling {
namespace {

// Beyond this many seconds from 2001 the year no longer fits the promise in
// the header (and time_t arithmetic stays far from overflow).
constexpr double kCalendarRange = 2.7e10;
// UTC offsets stay within ±14 hours; a wall-clock reading W can only be shown
// at instants W - offset, so every candidate lies within this window of W.
constexpr std::int64_t kWindow = 16 * 3600;
// Transitions found inside one window; real zones have at most two.
constexpr int kMaxRegimes = 6;

// Unix seconds as wall-clock seconds: the local reading counted as if it were
// UTC. One local day is exactly 86400 of them.
using WallSeconds = std::int64_t;
using UnixSeconds = std::int64_t;

// Days since 1970-01-01 of a proleptic Gregorian date (Howard Hinnant's
// days_from_civil).
std::int64_t daysFromCivil(LocalDay d) {
  const std::int64_t y = d.year - (d.month <= 2 ? 1 : 0);
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const std::int64_t yoe = y - era * 400;
  const std::int64_t mp = (d.month + 9) % 12;
  const std::int64_t doy = (153 * mp + 2) / 5 + d.day - 1;
  const std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

LocalDay civilFromDays(std::int64_t z) {
  z += 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const std::int64_t doe = z - era * 146097;
  const std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const std::int64_t mp = (5 * doy + 2) / 153;
  const int day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  const int month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  const int year = static_cast<int>(yoe + era * 400 + (month <= 2 ? 1 : 0));
  return {year, month, day};
}

bool inRange(double unixSeconds) {
  const double fromReference = unixSeconds - plist::kAbsoluteTimeIntervalSince1970;
  return std::isfinite(fromReference) && std::fabs(fromReference) <= kCalendarRange;
}

std::optional<std::tm> localFields(UnixSeconds u) {
  const std::time_t t = static_cast<std::time_t>(u);
  std::tm fields{};
  if (localtime_r(&t, &fields) == nullptr)
    return std::nullopt;
  return fields;
}

std::optional<long> offsetAt(UnixSeconds u) {
  const std::optional<std::tm> fields = localFields(u);
  if (!fields)
    return std::nullopt;
  return fields->tm_gmtoff;
}

// A stretch of time with one UTC offset, from `start` to the next stretch.
struct Regime {
  UnixSeconds start;
  long offset;
};

// The first instant after `from` (whose offset is `offset`) and at or before
// `to` (whose offset differs) where the offset changes, by bisection.
std::optional<UnixSeconds> nextChange(UnixSeconds from, UnixSeconds to, long offset) {
  while (to - from > 1) {
    const UnixSeconds middle = from + (to - from) / 2;
    const std::optional<long> o = offsetAt(middle);
    if (!o)
      return std::nullopt;
    (*o == offset ? from : to) = middle;
  }
  return to;
}

// The offsets in effect around `wall`, in time order. Probing the window's
// ends and middle finds every transition of real zones, whose changes are
// months (at least days) apart.
std::optional<std::vector<Regime>> regimesAround(WallSeconds wall) {
  const std::optional<long> first = offsetAt(wall - kWindow);
  if (!first)
    return std::nullopt;
  std::vector<Regime> regimes{{wall - kWindow, *first}};
  for (UnixSeconds probe : {wall, wall + kWindow}) {
    std::optional<long> o = offsetAt(probe);
    while (o && *o != regimes.back().offset && regimes.size() < kMaxRegimes) {
      const std::optional<UnixSeconds> change =
          nextChange(regimes.back().start, probe, regimes.back().offset);
      const std::optional<long> after = change ? offsetAt(*change) : std::nullopt;
      if (!after)
        return std::nullopt;
      regimes.push_back({*change, *after});
    }
    if (!o)
      return std::nullopt;
  }
  return regimes;
}

// The first instant at which the local clock shows `wall` or a later reading:
// walking the stretches in time order, either the clock jumps past `wall` at
// the start of a stretch, or it reaches `wall` inside one.
std::optional<UnixSeconds> resolveWall(WallSeconds wall) {
  const std::optional<std::vector<Regime>> regimes = regimesAround(wall);
  if (!regimes)
    return std::nullopt;
  for (std::size_t i = 0; i < regimes->size(); ++i) {
    const Regime& r = (*regimes)[i];
    const UnixSeconds end = i + 1 < regimes->size() ? (*regimes)[i + 1].start : wall + kWindow + 1;
    if (wall < r.start + r.offset)
      return r.start;
    if (wall < end + r.offset)
      return wall - r.offset;
  }
  return std::nullopt;
}

std::optional<plist::AbsoluteTime> instantOf(WallSeconds wall) {
  if (!inRange(static_cast<double>(wall)))
    return std::nullopt;
  const std::optional<UnixSeconds> resolved = resolveWall(wall);
  if (!resolved)
    return std::nullopt;
  return runloop::fromUnixSeconds(static_cast<double>(*resolved));
}

WallSeconds wallOf(LocalDay day, std::int64_t secondsFromMidnight) {
  return daysFromCivil(day) * kSecondsPerDay + secondsFromMidnight;
}

}  // namespace

std::optional<LocalDateTime> calendarSplit(plist::AbsoluteTime t) {
  const double unixSeconds = runloop::toUnixSeconds(t);
  if (!inRange(unixSeconds))
    return std::nullopt;
  const double whole = std::floor(unixSeconds);
  const std::optional<std::tm> fields = localFields(static_cast<UnixSeconds>(whole));
  if (!fields)
    return std::nullopt;
  LocalDateTime out;
  out.date = {fields->tm_year + 1900, fields->tm_mon + 1, fields->tm_mday};
  out.hour = fields->tm_hour;
  out.minute = fields->tm_min;
  out.second = fields->tm_sec;
  out.fraction = unixSeconds - whole;
  out.weekday = (fields->tm_wday + 6) % 7 + 1;
  out.utcOffset = fields->tm_gmtoff;
  return out;
}

std::optional<int> calendarWeekday(plist::AbsoluteTime t) {
  const std::optional<LocalDateTime> local = calendarSplit(t);
  if (!local)
    return std::nullopt;
  return local->weekday;
}

LocalDay calendarNextDay(LocalDay day) {
  return civilFromDays(daysFromCivil(day) + 1);
}

std::optional<plist::AbsoluteTime> calendarDateAt(LocalDay day, std::int64_t secondsFromMidnight) {
  // Keeps the sum far from overflow; inRange then refuses what is too far.
  constexpr std::int64_t kMaxOffset = std::int64_t{1} << 40;
  if (secondsFromMidnight > kMaxOffset || secondsFromMidnight < -kMaxOffset ||
      day.year < -1000000 || day.year > 1000000)
    return std::nullopt;
  return instantOf(wallOf(day, secondsFromMidnight));
}

}  // namespace nightjar::scheduling
