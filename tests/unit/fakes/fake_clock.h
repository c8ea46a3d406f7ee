// A wall clock that moves only when the test moves it.
#pragma once

#include "runloop/clock.h"

namespace nightjar::fakes {

class FakeClock final : public runloop::Clock {
 public:
  explicit FakeClock(runloop::AbsoluteTime start = 0) : now_(start) {}

  runloop::AbsoluteTime now() const override { return now_; }
  void set(runloop::AbsoluteTime now) { now_ = now; }
  void advance(double seconds) { now_ += seconds; }

 private:
  runloop::AbsoluteTime now_;
};

}  // namespace nightjar::fakes
