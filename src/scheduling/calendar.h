// Calendar arithmetic in the system's local time zone: the zone the C library
// uses for localtime_r, i.e. the one TZ names as of the last tzset(). The
// caller makes that zone current first; nothing here reads files or the
// environment.
//
// Daylight saving. A wall-clock reading on a calendar day names the FIRST
// instant at which the local clock shows that reading or a later one. Hence:
//  - a reading inside a skipped interval happens once, at the first valid
//    instant after the gap: 02:30 on a spring-forward day in Europe/Berlin
//    (02:00 CET jumps to 03:00 CEST) is 03:00 CEST;
//  - a reading inside a repeated interval happens once, at its first
//    instance: 02:30 on a fall-back day in Europe/Berlin is 02:30 CEST, not
//    the 02:30 CET an hour later.
// Every calendar day so has exactly one instant for every time of day, and a
// later time of day never gives an earlier instant. Transitions are found from
// the UTC offsets localtime_r reports, never from mktime's tm_isdst guess, so
// a shift of 30 minutes, one at midnight, or a change of the standard offset
// are handled alike.
//
// Dates more than 850 years away from 2001, NaN and infinities have no
// calendar here: the functions answer nullopt.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>

#include "plist/value.h"

namespace nightjar::scheduling {

inline constexpr std::int64_t kSecondsPerDay = 86400;

// A day of the proleptic Gregorian calendar.
struct LocalDay {
  int year = 2001;
  int month = 1;  // 1 to 12
  int day = 1;    // 1 to 31
  friend auto operator<=>(const LocalDay&, const LocalDay&) = default;
};

// An instant split into its local fields.
struct LocalDateTime {
  LocalDay date;
  int hour = 0;
  int minute = 0;
  int second = 0;
  double fraction = 0;  // of the second, 0 <= fraction < 1
  int weekday = 1;      // 1 = Monday ... 7 = Sunday
  long utcOffset = 0;   // seconds east of UTC in effect at the instant
};

std::optional<LocalDateTime> calendarSplit(plist::AbsoluteTime t);
// 1 = Monday ... 7 = Sunday, of the local day `t` falls on.
std::optional<int> calendarWeekday(plist::AbsoluteTime t);

// The calendar day after `day`.
LocalDay calendarNextDay(LocalDay day);

// The instant at `secondsFromMidnight` on `day`, resolved by the rule above.
// Any count is allowed: 86400 is midnight at the end of `day` (00:00 of the
// next day), a negative count reaches into the days before.
std::optional<plist::AbsoluteTime> calendarDateAt(LocalDay day, std::int64_t secondsFromMidnight);

}  // namespace nightjar::scheduling
