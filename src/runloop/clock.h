// The wall clock as a port, so that tests can move time by hand.
#pragma once

#include <cstdint>

#include "plist/value.h"

namespace nightjar::runloop {

using plist::AbsoluteTime;

class Clock {
 public:
  virtual ~Clock() = default;
  // Current wall-clock time, seconds since 2001-01-01 UTC.
  virtual AbsoluteTime now() const = 0;
};

// The real clock (CLOCK_REALTIME). Lives for the whole process.
const Clock& systemClock();

// Converts between absolute time and Unix-epoch seconds.
inline double toUnixSeconds(AbsoluteTime t) {
  return t + plist::kAbsoluteTimeIntervalSince1970;
}
inline AbsoluteTime fromUnixSeconds(double s) {
  return s - plist::kAbsoluteTimeIntervalSince1970;
}
// Microseconds since the Unix epoch, for the kernel's timers: dates before the
// epoch (and NaN) become 0, dates past about 146 000 years are capped, so the
// answer never overflows.
std::uint64_t toUnixMicroseconds(AbsoluteTime t);

}  // namespace nightjar::runloop
