// The SystemSleep over logind: Manager.Suspend(false), asked without waiting.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

#include "platform/system_sleep.h"

namespace nightjar::platform::linux_adapter {

// Answers nullptr when `bus` is null: the daemon then cannot put the system to
// sleep. The bus must be attached to the run loop, which delivers the answers.
std::unique_ptr<SystemSleep> makeLogindSystemSleep(sd_bus* bus);

}  // namespace nightjar::platform::linux_adapter
