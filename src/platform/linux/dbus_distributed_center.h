// Broadcasts as D-Bus signals on the system bus: path "/quillon/nightjar",
// interface "quillon.nightjar", member "Notification", arguments (name, user
// information as XML property-list text). No bus name is owned.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

#include "platform/distributed_center.h"

namespace nightjar::platform::linux_adapter {

// Answers nullptr without a bus. The bus must outlive the center.
std::unique_ptr<DistributedCenter> makeDbusDistributedCenter(sd_bus* bus);

}  // namespace nightjar::platform::linux_adapter
