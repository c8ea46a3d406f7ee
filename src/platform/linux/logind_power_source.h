// The PowerSource over logind's PrepareForSleep signal.
#pragma once

#include <memory>

#include "platform/linux/system_bus.h"
#include "platform/power_source.h"

namespace nightjar::platform::linux_adapter {

// Whenever logind is on the bus: takes its "sleep" delay inhibitor (without
// waiting) and listens for PrepareForSleep. When logind refuses the
// inhibitor, sleep and wake are still reported, but the sleep is not held
// back for the handler; the inhibitor is asked for again after each wake and
// each return of logind. Answers nullptr when `bus` is null: no sleep or wake
// is then reported. `bus` must outlive the source.
std::unique_ptr<PowerSource> makeLogindPowerSource(SystemBusConnection* bus);

}  // namespace nightjar::platform::linux_adapter
