// An idle time that grows with a fake clock from the user's last input, which
// the test sets by hand.
#pragma once

#include <cmath>
#include <cstdint>

#include "platform/idle_time_source.h"
#include "runloop/clock.h"

namespace nightjar::fakes {

class FakeIdleTimeSource final : public platform::IdleTimeSource {
 public:
  // The user touched the machine at the clock's current time.
  explicit FakeIdleTimeSource(const runloop::Clock& clock)
      : clock_(clock), lastInput_(clock.now()) {}

  // Whole seconds since the last input, truncated; 0 while unknown.
  std::uint32_t idleSeconds() override {
    ++reads_;
    const double idle = clock_.now() - lastInput_;
    return unknown_ || !(idle > 0) ? 0 : static_cast<std::uint32_t>(std::floor(idle));
  }

  // Switches.
  void touch() { lastInput_ = clock_.now(); }
  void lastInputAt(runloop::AbsoluteTime date) { lastInput_ = date; }
  void setUnknown(bool unknown) { unknown_ = unknown; }

  // Records.
  int reads() const { return reads_; }

 private:
  const runloop::Clock& clock_;
  runloop::AbsoluteTime lastInput_;
  bool unknown_ = false;
  int reads_ = 0;
};

}  // namespace nightjar::fakes
