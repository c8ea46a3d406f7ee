// A one-shot, resettable wall-clock timer, as a port: the run loop implements
// it over sd-event, tests use a fake that they fire by hand.
#pragma once

#include <functional>
#include <memory>

#include "runloop/clock.h"

namespace nightjar::runloop {

// How far ahead `park` puts a timer: 100 years.
inline constexpr double kParkInterval = 100.0 * 365.25 * 24 * 3600;

class Timer {
 public:
  virtual ~Timer() = default;
  Timer() = default;
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // Arms the timer to fire once at the given wall-clock date (a date in the
  // past fires on the next loop pass). Replaces any earlier date. Run-loop
  // thread only.
  virtual void setNextFireDate(AbsoluteTime date) = 0;
  // Arms the timer 100 years ahead of now: idle, but still armed.
  virtual void park() = 0;
  virtual AbsoluteTime nextFireDate() const = 0;
};

// Makes a timer that calls `callback` when it fires; answers nullptr on
// failure. Modules take one so that tests can hand them fake timers.
using TimerFactory = std::function<std::unique_ptr<Timer>(std::function<void()> callback)>;

}  // namespace nightjar::runloop
