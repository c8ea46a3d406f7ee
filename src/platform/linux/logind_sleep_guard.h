// The SleepGuard over logind: an "idle" block inhibitor while held.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

#include "platform/sleep_guard.h"

namespace nightjar::platform::linux_adapter {

// Answers nullptr when `bus` is null or logind does not answer on it (checked
// once, blocking briefly); the daemon then never refuses idle sleep.
std::unique_ptr<SleepGuard> makeLogindSleepGuard(sd_bus* bus);

}  // namespace nightjar::platform::linux_adapter
