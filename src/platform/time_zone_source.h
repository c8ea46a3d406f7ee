// The system time zone, re-read when it changed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace nightjar::platform {

// A time zone as a value: two zones compare equal exactly when they have the
// same name and the same rules.
struct TimeZone {
  std::string name;                // e.g. "Europe/Paris"; empty when unknown
  std::vector<std::uint8_t> data;  // the zone's compiled rules (TZif); empty: UTC
  friend bool operator==(const TimeZone&, const TimeZone&) = default;
};

class TimeZoneSource {
 public:
  virtual ~TimeZoneSource() = default;
  TimeZoneSource() = default;
  TimeZoneSource(const TimeZoneSource&) = delete;
  TimeZoneSource& operator=(const TimeZoneSource&) = delete;

  // The system zone as it is now. Re-reads the zone, and makes the C library's
  // local-time functions use it, only when its file changed since the last
  // call, so that asking is cheap. Answers nullopt when the zone cannot be
  // read. Run-loop thread only.
  virtual std::optional<TimeZone> current() = 0;
};

}  // namespace nightjar::platform
