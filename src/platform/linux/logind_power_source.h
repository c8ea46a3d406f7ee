// The PowerSource over logind's PrepareForSleep signal.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

#include "platform/power_source.h"

namespace nightjar::platform::linux_adapter {

// Takes logind's "sleep" delay inhibitor (blocking briefly) and listens for
// PrepareForSleep. Answers nullptr when `bus` is null, logind refuses the
// inhibitor or the signal cannot be subscribed: no sleep or wake is reported.
std::unique_ptr<PowerSource> makeLogindPowerSource(sd_bus* bus);

}  // namespace nightjar::platform::linux_adapter
