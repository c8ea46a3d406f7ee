// The SleepGuard over logind: an "idle" block inhibitor while held.
#pragma once

#include <memory>

#include "platform/linux/system_bus.h"
#include "platform/sleep_guard.h"

namespace nightjar::platform::linux_adapter {

// Answers nullptr when `bus` is null; the daemon then never refuses idle
// sleep. While logind is away nothing is held. `bus` must outlive the guard.
std::unique_ptr<SleepGuard> makeLogindSleepGuard(SystemBusConnection* bus);

}  // namespace nightjar::platform::linux_adapter
