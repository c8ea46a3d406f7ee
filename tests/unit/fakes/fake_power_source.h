// A PowerSource whose sleeps and wakes the test announces by hand.
#pragma once

#include "platform/power_source.h"

namespace nightjar::testing {

class FakePowerSource final : public platform::PowerSource {
 public:
  void setHandlers(Handlers next) override { handlers = std::move(next); }
  void sleep() {
    if (handlers.willSleep)
      handlers.willSleep();
  }
  void wake() {
    if (handlers.didWake)
      handlers.didWake();
  }

  Handlers handlers;
};

}  // namespace nightjar::testing
