// Shared helpers of the date-time tests: a time zone set for one test, dates
// written as UTC or local fields, and "once" / "daily" events.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>
#include <utility>

#include "model/model_testing.h"
#include "runloop/clock.h"

namespace nightjar::scheduling::testing {

using model::testing::S;
using plist::AbsoluteTime;
using plist::Value;

// Makes `zone` the C library's local zone for the object's lifetime, then
// restores the TZ it found.
class ScopedZone {
 public:
  explicit ScopedZone(const std::string& zone) {
    if (const char* tz = std::getenv("TZ"))
      saved_ = tz;
    setenv("TZ", zone.c_str(), /*overwrite=*/1);
    tzset();
  }
  ~ScopedZone() {
    saved_ ? setenv("TZ", saved_->c_str(), 1) : unsetenv("TZ");
    tzset();
  }
  ScopedZone(const ScopedZone&) = delete;
  ScopedZone& operator=(const ScopedZone&) = delete;

 private:
  std::optional<std::string> saved_;
};

// True when the compiled zone is installed, so a test can skip without it.
inline bool zoneInstalled(const std::string& zone) {
  struct stat info {};
  return stat(("/usr/share/zoneinfo/" + zone).c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

// The instant of a UTC reading.
inline AbsoluteTime utc(int year, int month, int day, int hour = 0, int minute = 0,
                        int second = 0) {
  std::tm fields{};
  fields.tm_year = year - 1900;
  fields.tm_mon = month - 1;
  fields.tm_mday = day;
  fields.tm_hour = hour;
  fields.tm_min = minute;
  fields.tm_sec = second;
  return runloop::fromUnixSeconds(static_cast<double>(timegm(&fields)));
}

inline Value days(std::initializer_list<const char*> names) {
  plist::Array out;
  for (const char* name : names)
    out.push_back(S(name));
  return Value::array(std::move(out));
}
inline Value everyDay() {
  return days({"monday", "tuesday", "wednesday", "thursday", "friday", "saturday", "sunday"});
}

inline Value event(const std::string& id, Value trigger, const std::string& action = "sleep") {
  return Value::dictionary({{"uniqueid", S(id)},
                            {"name", S(id)},
                            {"enabled", Value::boolean(true)},
                            {"trigger", std::move(trigger)},
                            {"action", Value::dictionary({{"type", S(action)}})}});
}
inline Value onceEvent(const std::string& id, AbsoluteTime date,
                       const std::string& action = "sleep") {
  return event(id, Value::dictionary({{"type", S("once")}, {"date", Value::date(date)}}), action);
}
inline Value dailyEvent(const std::string& id, std::int64_t secondsFromMidnight,
                        const std::string& action = "sleep", Value weekdays = everyDay()) {
  return event(id,
               Value::dictionary({{"type", S("daily")},
                                  {"secondsfrommidnight", Value::integer(secondsFromMidnight)},
                                  {"days", std::move(weekdays)}}),
               action);
}

inline constexpr std::int64_t hms(int hour, int minute, int second = 0) {
  return hour * 3600 + minute * 60 + second;
}

}  // namespace nightjar::scheduling::testing
