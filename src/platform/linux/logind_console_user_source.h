// The ConsoleUserSource over logind: the active session of seat0.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

#include "platform/console_user_source.h"

namespace nightjar::platform::linux_adapter {

// Follows seat0's ActiveSession. Answers nullptr when `bus` is null, logind
// does not answer on it (checked once, blocking briefly) or the seat's signal
// cannot be subscribed: no login or logout is then reported.
std::unique_ptr<ConsoleUserSource> makeLogindConsoleUserSource(sd_bus* bus);

}  // namespace nightjar::platform::linux_adapter
