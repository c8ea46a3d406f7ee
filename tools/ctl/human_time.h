// Times as a person types them, read in the local time zone (TZ), and the
// reverse: durations ("90", "10m", "1h30m"), clock times ("22:30"), weekday
// sets ("mon-fri", "weekends", "mon,wed"), and the dates of --at.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plist/value.h"

namespace nightjar::ctl {

// Seconds in "<n>[s|m|h|d]..." (a bare number is seconds); none when it is not one.
std::optional<long> parseDuration(std::string_view text);
// "HH:MM" as seconds after midnight.
std::optional<long> parseClock(std::string_view text);
// The weekdays of a set, as the event record names them, in week order
// starting on Monday; none with `error` naming the word that is no day.
std::optional<std::vector<std::string>> parseDays(std::string_view text, std::string& error);

// A local wall-clock time (year, month 1-12, day, hour, minute) as an instant
// in Unix seconds. A time that occurs twice takes the earlier instant; a time
// in the gap of a daylight-saving change is none, with `error` naming the gap.
std::optional<long long> localInstant(int year, int month, int day, int hour, int minute,
                                      std::string& error);

// The date of --at: "YYYY-MM-DD HH:MM", "today HH:MM", "tomorrow HH:MM" or
// "+<duration>", relative to `now` (Unix seconds). A date that is not after
// `now` is refused like one that cannot be read: none, `error` says why.
std::optional<long long> parseAt(std::string_view text, long long now, std::string& error);

// Unix seconds and the daemon's dates (seconds since 2001).
plist::AbsoluteTime toAbsolute(long long unixSeconds);
long long toUnix(plist::AbsoluteTime absolute);

// "YYYY-MM-DD HH:MM" in local time.
std::string formatLocal(long long unixSeconds);
// "YYYY-MM-DDTHH:MM:SSZ" (with a fraction when there is one), and back.
std::string formatIso(plist::AbsoluteTime absolute);
std::optional<plist::AbsoluteTime> parseIso(std::string_view text);
// "1h30m", "10m", "45s": the shortest form of a number of seconds.
std::string formatDuration(long seconds);

// The next instant after `now` at which a daily trigger is due: the wall-clock
// time placed afresh on each of the chosen days.
std::optional<long long> nextDaily(long secondsFromMidnight, const std::vector<std::string>& days,
                                   long long now);

}  // namespace nightjar::ctl
