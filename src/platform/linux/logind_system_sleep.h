// The SystemSleep over logind: Manager.Suspend(false), asked without waiting.
#pragma once

#include <memory>

#include "platform/linux/system_bus.h"
#include "platform/system_sleep.h"

namespace nightjar::platform::linux_adapter {

// Answers nullptr when `bus` is null: the daemon then cannot put the system to
// sleep. While the bus is lost each call fails with ENOTCONN. The bus must be
// attached to the run loop, which delivers the answers, and outlive the sleep.
std::unique_ptr<SystemSleep> makeLogindSystemSleep(SystemBusConnection* bus);

}  // namespace nightjar::platform::linux_adapter
