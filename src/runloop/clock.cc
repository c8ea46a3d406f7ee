#include "runloop/clock.h"

#include <time.h>

#include <cmath>

namespace nightjar::runloop {
namespace {

class SystemClock final : public Clock {
 public:
  AbsoluteTime now() const override {
    struct timespec ts {};
    // CLOCK_REALTIME cannot fail with a valid pointer.
    clock_gettime(CLOCK_REALTIME, &ts);
    return fromUnixSeconds(static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9);
  }
};

// 2^62 µs: about 146 000 years, far past any date the daemon keeps, and well
// below the kernel's "infinity" so that adding an accuracy cannot wrap.
constexpr double kMaxMicroseconds = 4611686018427387904.0;

}  // namespace

const Clock& systemClock() {
  static const SystemClock clock;
  return clock;
}

std::uint64_t toUnixMicroseconds(AbsoluteTime t) {
  const double micros = std::floor(toUnixSeconds(t) * 1e6);
  // Written so that NaN also lands on 0: it fails every comparison.
  if (!(micros > 0)) {
    return 0;
  }
  if (micros >= kMaxMicroseconds) {
    return static_cast<std::uint64_t>(kMaxMicroseconds);
  }
  return static_cast<std::uint64_t>(micros);
}

}  // namespace nightjar::runloop
