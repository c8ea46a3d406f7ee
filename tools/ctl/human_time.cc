#include "human_time.h"

#include <array>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace nightjar::ctl {
namespace {

constexpr long kDay = 86400;
// Monday first, as people list a week; the record's own weekday names.
constexpr std::array<std::string_view, 7> kDays = {"monday", "tuesday",  "wednesday", "thursday",
                                                   "friday", "saturday", "sunday"};

bool sameWallTime(std::time_t instant, const std::tm& wanted) {
  std::tm local{};
  localtime_r(&instant, &local);
  return local.tm_year == wanted.tm_year && local.tm_mon == wanted.tm_mon &&
         local.tm_mday == wanted.tm_mday && local.tm_hour == wanted.tm_hour &&
         local.tm_min == wanted.tm_min;
}

long offsetAt(std::time_t instant) {
  std::tm local{};
  localtime_r(&instant, &local);
  return local.tm_gmtoff;
}

std::string formatWall(std::time_t wall, const char* format) {
  std::tm fields{};
  gmtime_r(&wall, &fields);
  char text[64];
  std::strftime(text, sizeof(text), format, &fields);
  return text;
}

// Names the gap that `wall` (local fields read as if UTC) falls in: the change
// of offset within a day either side of it.
std::string describeGap(std::time_t wall) {
  std::time_t low = wall - 2 * kDay;
  std::time_t high = wall + 2 * kDay;
  const long before = offsetAt(low);
  const long after = offsetAt(high);
  if (before == after)
    return formatWall(wall, "%Y-%m-%d %H:%M") + " is not a date";
  while (high - low > 1) {
    const std::time_t middle = low + (high - low) / 2;
    (offsetAt(middle) == before ? low : high) = middle;
  }
  return formatWall(wall, "%Y-%m-%d %H:%M") +
         " does not exist in local time: the clocks skip from " +
         formatWall(high + before, "%H:%M") + " to " + formatWall(high + after, "%H:%M");
}

std::optional<int> dayIndex(std::string_view word) {
  for (std::size_t i = 0; i < kDays.size(); ++i)
    if (word.size() >= 3 && kDays[i].substr(0, word.size()) == word)
      return static_cast<int>(i);
  return std::nullopt;
}

// The local calendar date `days` after the one of `now`.
std::tm localDate(long long now, int days) {
  const std::time_t instant = static_cast<std::time_t>(now);
  std::tm local{};
  localtime_r(&instant, &local);
  std::tm noon{};
  noon.tm_year = local.tm_year;
  noon.tm_mon = local.tm_mon;
  noon.tm_mday = local.tm_mday + days;
  noon.tm_hour = 12;
  const std::time_t normal = timegm(&noon);
  std::tm date{};
  gmtime_r(&normal, &date);
  return date;
}

}  // namespace

std::optional<long> parseDuration(std::string_view text) {
  long total = 0;
  std::size_t i = 0;
  if (text.empty())
    return std::nullopt;
  while (i < text.size()) {
    long number = 0;
    std::size_t digits = 0;
    for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i, ++digits)
      number = number * 10 + (text[i] - '0');
    if (digits == 0 || digits > 9)
      return std::nullopt;
    long unit = 1;
    if (i < text.size()) {
      const char c = text[i++];
      unit = c == 's' ? 1 : c == 'm' ? 60 : c == 'h' ? 3600 : c == 'd' ? kDay : 0;
    } else if (total != 0) {
      return std::nullopt;  // "1h30": a bare number only alone
    }
    if (unit == 0 || number > 100L * 365 * kDay / unit)
      return std::nullopt;
    total += number * unit;
  }
  return total;
}

std::optional<long> parseClock(std::string_view text) {
  int hour = 0, minute = 0, used = 0;
  const std::string copy(text);
  if (std::sscanf(copy.c_str(), "%2d:%2d%n", &hour, &minute, &used) != 2 ||
      used != static_cast<int>(copy.size()) || hour < 0 || hour > 23 || minute < 0 || minute > 59)
    return std::nullopt;
  return hour * 3600L + minute * 60L;
}

std::optional<std::vector<std::string>> parseDays(std::string_view text, std::string& error) {
  std::array<bool, 7> chosen{};
  const auto mark = [&](int first, int last) {
    for (int day = first;; day = (day + 1) % 7) {
      chosen[static_cast<std::size_t>(day)] = true;
      if (day == last)
        break;
    }
  };
  std::size_t start = 0;
  while (start <= text.size()) {
    const std::size_t comma = std::min(text.find(',', start), text.size());
    const std::string_view word = text.substr(start, comma - start);
    const std::size_t dash = word.find('-');
    if (word == "all" || word == "daily") {
      mark(0, 6);
    } else if (word == "weekdays") {
      mark(0, 4);
    } else if (word == "weekends") {
      mark(5, 6);
    } else if (dash != std::string_view::npos && dayIndex(word.substr(0, dash)) &&
               dayIndex(word.substr(dash + 1))) {
      mark(*dayIndex(word.substr(0, dash)), *dayIndex(word.substr(dash + 1)));
    } else if (const std::optional<int> day = dayIndex(word)) {
      mark(*day, *day);
    } else {
      error = "\"" + std::string(word) +
              "\" is not a day (mon..sun, a range like mon-fri, weekdays, weekends or all)";
      return std::nullopt;
    }
    start = comma + 1;
  }
  std::vector<std::string> days;
  for (std::size_t i = 0; i < kDays.size(); ++i)
    if (chosen[i])
      days.emplace_back(kDays[i]);
  return days;
}

namespace {
// The calendar fields of a reading, for mktime or timegm.
std::tm calendarFields(int year, int month, int day, int hour, int minute, int second = 0) {
  std::tm fields{};
  fields.tm_year = year - 1900;
  fields.tm_mon = month - 1;
  fields.tm_mday = day;
  fields.tm_hour = hour;
  fields.tm_min = minute;
  fields.tm_sec = second;
  return fields;
}
}  // namespace

std::optional<long long> localInstant(int year, int month, int day, int hour, int minute,
                                      std::string& error) {
  const std::tm wanted = calendarFields(year, month, day, hour, minute);
  std::optional<long long> earliest;
  for (const int isDst : {0, 1, -1}) {
    std::tm attempt = wanted;
    attempt.tm_isdst = isDst;
    const std::time_t instant = std::mktime(&attempt);
    if (sameWallTime(instant, wanted) && (!earliest || instant < *earliest))
      earliest = instant;
  }
  if (!earliest) {
    std::tm wall = wanted;
    error = describeGap(timegm(&wall));
  }
  return earliest;
}

std::optional<long long> parseAt(std::string_view text, long long now, std::string& error) {
  std::optional<long long> instant;
  const std::string copy(text);
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, used = 0;
  if (!text.empty() && text[0] == '+') {
    if (const std::optional<long> seconds = parseDuration(text.substr(1)))
      instant = now + *seconds;
  } else if (std::sscanf(copy.c_str(), "%4d-%2d-%2d %2d:%2d%n", &year, &month, &day, &hour, &minute,
                         &used) == 5 &&
             used == static_cast<int>(copy.size())) {
    if (!(instant = localInstant(year, month, day, hour, minute, error)))
      return std::nullopt;
  } else if (text.starts_with("today ") || text.starts_with("tomorrow ")) {
    const std::size_t space = text.find(' ');
    const std::optional<long> clock = parseClock(text.substr(space + 1));
    if (clock) {
      const std::tm date = localDate(now, text.starts_with("tomorrow") ? 1 : 0);
      if (!(instant = localInstant(date.tm_year + 1900, date.tm_mon + 1, date.tm_mday,
                                   static_cast<int>(*clock / 3600),
                                   static_cast<int>(*clock / 60 % 60), error)))
        return std::nullopt;
    }
  }
  if (!instant) {
    error = "\"" + copy +
            "\" is not a date: use \"YYYY-MM-DD HH:MM\", \"today HH:MM\", \"tomorrow HH:MM\" or "
            "\"+DURATION\"";
    return std::nullopt;
  }
  if (*instant <= now) {
    error = "\"" + copy + "\" (" + formatLocal(*instant) + ") is in the past";
    return std::nullopt;
  }
  return instant;
}

plist::AbsoluteTime toAbsolute(long long unixSeconds) {
  return static_cast<double>(unixSeconds) - plist::kAbsoluteTimeIntervalSince1970;
}

long long toUnix(plist::AbsoluteTime absolute) {
  return static_cast<long long>(std::floor(absolute + plist::kAbsoluteTimeIntervalSince1970));
}

std::string formatLocal(long long unixSeconds) {
  const std::time_t instant = static_cast<std::time_t>(unixSeconds);
  std::tm local{};
  localtime_r(&instant, &local);
  char text[32];
  std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M", &local);
  return text;
}

std::string formatIso(plist::AbsoluteTime absolute) {
  const long long seconds = toUnix(absolute);
  const long micros = std::lround(
      (absolute + plist::kAbsoluteTimeIntervalSince1970 - static_cast<double>(seconds)) * 1e6);
  std::string text = formatWall(static_cast<std::time_t>(seconds), "%Y-%m-%dT%H:%M:%S");
  if (micros > 0 && micros < 1000000) {
    char fraction[16];
    std::snprintf(fraction, sizeof(fraction), ".%06ld", micros);
    std::string digits = fraction;
    while (digits.back() == '0')
      digits.pop_back();
    text += digits;
  }
  return text + "Z";
}

std::optional<plist::AbsoluteTime> parseIso(std::string_view text) {
  const std::string copy(text);
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, used = 0;
  if (std::sscanf(copy.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%n", &year, &month, &day, &hour, &minute,
                  &second, &used) != 6 ||
      used != 19 || copy.size() < 20 || copy.back() != 'Z')
    return std::nullopt;
  double fraction = 0;
  const std::string_view rest = text.substr(19, text.size() - 20);
  if (!rest.empty()) {
    if (rest.size() < 2 || rest.size() > 10 || rest[0] != '.')
      return std::nullopt;
    double scale = 0.1;
    for (const char c : rest.substr(1)) {
      if (!std::isdigit(static_cast<unsigned char>(c)))
        return std::nullopt;
      fraction += (c - '0') * scale;
      scale /= 10;
    }
  }
  std::tm fields = calendarFields(year, month, day, hour, minute, second);
  const std::time_t seconds = timegm(&fields);
  if (formatWall(seconds, "%Y-%m-%dT%H:%M:%S") != copy.substr(0, 19))
    return std::nullopt;  // out of range fields, like February 30
  return toAbsolute(seconds) + fraction;
}

std::string formatDuration(long seconds) {
  if (seconds <= 0)
    return std::to_string(seconds) + "s";
  std::string text;
  for (const auto& [unit, letter] : {std::pair{kDay, 'd'}, {3600L, 'h'}, {60L, 'm'}, {1L, 's'}})
    if (seconds >= unit) {
      text += std::to_string(seconds / unit) + letter;
      seconds %= unit;
    }
  return text;
}

std::optional<long long> nextDaily(long secondsFromMidnight, const std::vector<std::string>& days,
                                   long long now) {
  for (int offset = 0; offset <= 8; ++offset) {
    const std::tm date = localDate(now, offset);
    // tm_wday counts from Sunday; the table from Monday.
    const std::string_view name = kDays[static_cast<std::size_t>((date.tm_wday + 6) % 7)];
    bool chosen = false;
    for (const std::string& day : days)
      chosen = chosen || day == name;
    if (!chosen)
      continue;
    std::string gap;  // a time in a skipped hour: shown on the next day that has it
    const std::optional<long long> due =
        localInstant(date.tm_year + 1900, date.tm_mon + 1, date.tm_mday,
                     static_cast<int>(secondsFromMidnight / 3600),
                     static_cast<int>(secondsFromMidnight / 60 % 60), gap);
    if (due && *due + secondsFromMidnight % 60 > now)
      return *due + secondsFromMidnight % 60;
  }
  return std::nullopt;
}

}  // namespace nightjar::ctl
