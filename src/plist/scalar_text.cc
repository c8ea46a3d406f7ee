#include "plist/scalar_text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace nightjar::plist {

namespace {

constexpr std::int64_t kSecondsPerDay = 86400;
constexpr std::int64_t kUnixSecondsAtReference = 978307200;

// Days since 1970-01-01 of a proleptic Gregorian date (H. Hinnant's algorithm).
std::int64_t daysFromCivil(std::int64_t year, int month, int day) {
  year -= month <= 2;
  const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
  const std::int64_t yearOfEra = year - era * 400;
  const std::int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + dayOfEra - 719468;
}

struct CivilDate {
  std::int64_t year;
  int month;
  int day;
};

// The inverse of daysFromCivil.
CivilDate civilFromDays(std::int64_t days) {
  days += 719468;
  const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const std::int64_t dayOfEra = days - era * 146097;
  const std::int64_t yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const std::int64_t shiftedMonth = (5 * dayOfYear + 2) / 153;
  const int day = static_cast<int>(dayOfYear - (153 * shiftedMonth + 2) / 5 + 1);
  const int month = static_cast<int>(shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9);
  return {yearOfEra + era * 400 + (month <= 2), month, day};
}

bool isLeapYear(std::int64_t year) {
  return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int daysInMonth(std::int64_t year, int month) {
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && isLeapYear(year) ? 29 : kDays[month - 1];
}

// Reads exactly `width` decimal digits at `text[offset]`.
std::optional<int> fixedDigits(std::string_view text, std::size_t offset, std::size_t width) {
  int number = 0;
  for (std::size_t i = offset; i < offset + width; ++i) {
    if (text[i] < '0' || text[i] > '9') {
      return std::nullopt;
    }
    number = number * 10 + (text[i] - '0');
  }
  return number;
}

int digitValue(char c, int base) {
  int value = 99;
  if (c >= '0' && c <= '9') {
    value = c - '0';
  } else if (c >= 'a' && c <= 'f') {
    value = c - 'a' + 10;
  } else if (c >= 'A' && c <= 'F') {
    value = c - 'A' + 10;
  }
  return value < base ? value : -1;
}

}  // namespace

std::optional<std::int64_t> parseIntegerText(std::string_view text) {
  bool negative = false;
  if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
    negative = text[0] == '-';
    text.remove_prefix(1);
  }
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text.remove_prefix(2);
  }
  if (text.empty()) {
    return std::nullopt;
  }
  // The magnitude of INT64_MIN is one more than INT64_MAX.
  const std::uint64_t limit = negative ? std::uint64_t{1} << 63 : (std::uint64_t{1} << 63) - 1;
  std::uint64_t magnitude = 0;
  for (char c : text) {
    const int digit = digitValue(c, base);
    if (digit < 0 || magnitude > (limit - static_cast<std::uint64_t>(digit)) / base) {
      return std::nullopt;
    }
    magnitude = magnitude * base + static_cast<std::uint64_t>(digit);
  }
  if (!negative) {
    return static_cast<std::int64_t>(magnitude);
  }
  // Negate in unsigned arithmetic so that INT64_MIN does not overflow.
  return static_cast<std::int64_t>(~magnitude + 1);
}

std::optional<double> parseRealText(std::string_view text) {
  // from_chars reads strtod's C-locale grammar except a leading '+'.
  if (!text.empty() && text[0] == '+') {
    text.remove_prefix(1);
    if (!text.empty() && text[0] == '-') {
      return std::nullopt;
    }
  }
  double number = 0;
  const char* end = text.data() + text.size();
  auto [stop, error] = std::from_chars(text.data(), end, number, std::chars_format::general);
  if (text.empty() || error != std::errc() || stop != end) {
    return std::nullopt;
  }
  return number;
}

std::optional<AbsoluteTime> parseDateText(std::string_view text) {
  // 0123456789012345678 9
  // YYYY-MM-DDTHH:MM:SSZ
  if (text.size() != 20 || text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' ||
      text[16] != ':' || text[19] != 'Z') {
    return std::nullopt;
  }
  auto year = fixedDigits(text, 0, 4);
  auto month = fixedDigits(text, 5, 2);
  auto day = fixedDigits(text, 8, 2);
  auto hour = fixedDigits(text, 11, 2);
  auto minute = fixedDigits(text, 14, 2);
  auto second = fixedDigits(text, 17, 2);
  if (!year || !month || !day || !hour || !minute || !second) {
    return std::nullopt;
  }
  if (*month < 1 || *month > 12 || *day < 1 || *day > daysInMonth(*year, *month) || *hour > 23 ||
      *minute > 59 || *second > 59) {
    return std::nullopt;
  }
  const std::int64_t unixSeconds =
      daysFromCivil(*year, *month, *day) * kSecondsPerDay + *hour * 3600 + *minute * 60 + *second;
  return static_cast<AbsoluteTime>(unixSeconds - kUnixSecondsAtReference);
}

std::string formatRealText(double number) {
  if (std::isnan(number)) {
    return "nan";
  }
  if (std::isinf(number)) {
    return number > 0 ? "+infinity" : "-infinity";
  }
  char buffer[64];
  auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, number);
  return error == std::errc() ? std::string(buffer, end) : std::string("nan");
}

std::string formatDateText(AbsoluteTime date) {
  static const std::int64_t kFirst =
      daysFromCivil(0, 1, 1) * kSecondsPerDay - kUnixSecondsAtReference;
  static const std::int64_t kLast =
      daysFromCivil(9999, 12, 31) * kSecondsPerDay + kSecondsPerDay - 1 - kUnixSecondsAtReference;
  double whole = std::isnan(date) ? 0.0 : std::floor(date);
  whole = std::clamp(whole, static_cast<double>(kFirst), static_cast<double>(kLast));
  const std::int64_t unixSeconds = static_cast<std::int64_t>(whole) + kUnixSecondsAtReference;
  // Floor division, so that times before 1970 fall on the right day.
  std::int64_t days = unixSeconds / kSecondsPerDay;
  std::int64_t secondOfDay = unixSeconds % kSecondsPerDay;
  if (secondOfDay < 0) {
    secondOfDay += kSecondsPerDay;
    --days;
  }
  const CivilDate civil = civilFromDays(days);
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02dZ",
                static_cast<int>(civil.year), civil.month, civil.day,
                static_cast<int>(secondOfDay / 3600), static_cast<int>(secondOfDay / 60 % 60),
                static_cast<int>(secondOfDay % 60));
  return buffer;
}

}  // namespace nightjar::plist
