// System sleep and wake, as announced by the power manager.
#pragma once

#include <functional>

namespace nightjar::platform {

// Where the platform lets it, the source holds back each system sleep until its
// sleep handler has returned: the handler's return is the acknowledgement that
// the system may sleep. Where it does not, sleep and wake are still reported.
// A sleep is never refused.
class PowerSource {
 public:
  virtual ~PowerSource() = default;
  PowerSource() = default;
  PowerSource(const PowerSource&) = delete;
  PowerSource& operator=(const PowerSource&) = delete;

  struct Handlers {
    std::function<void()> willSleep;  // the system is about to sleep
    std::function<void()> didWake;    // the system has powered on again
  };
  // Replaces any earlier handlers; an empty handler is skipped. Both are called
  // from the run loop. Run-loop thread only.
  virtual void setHandlers(Handlers handlers) = 0;
};

}  // namespace nightjar::platform
