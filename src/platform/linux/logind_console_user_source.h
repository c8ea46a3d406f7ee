// The ConsoleUserSource over logind: the active session of seat0.
#pragma once

#include <memory>

#include "platform/console_user_source.h"
#include "platform/linux/system_bus.h"

namespace nightjar::platform::linux_adapter {

// Follows seat0's ActiveSession whenever logind is on the bus, and reads it
// again each time logind comes back. Answers nullptr when `bus` is null: no
// login or logout is then reported. `bus` must outlive the source.
std::unique_ptr<ConsoleUserSource> makeLogindConsoleUserSource(SystemBusConnection* bus);

}  // namespace nightjar::platform::linux_adapter
