// Broadcasts as D-Bus signals on the system bus: path "/quillon/nightjar",
// interface "quillon.nightjar", member "Notification", arguments (name, user
// information as XML property-list text). No bus name is owned.
#pragma once

#include <memory>

#include "platform/distributed_center.h"
#include "platform/linux/system_bus.h"

namespace nightjar::platform::linux_adapter {

// Answers nullptr without a bus. Posts nothing while the bus is lost. The bus
// must outlive the center.
std::unique_ptr<DistributedCenter> makeDbusDistributedCenter(SystemBusConnection* bus);

}  // namespace nightjar::platform::linux_adapter
