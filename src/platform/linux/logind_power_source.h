// The PowerSource over logind's PrepareForSleep signal.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

#include "platform/power_source.h"

namespace nightjar::platform::linux_adapter {

// Takes logind's "sleep" delay inhibitor (blocking briefly) and listens for
// PrepareForSleep. When logind refuses the inhibitor, sleep and wake are still
// reported, but the sleep is not held back for the handler; the inhibitor is
// asked for again after each wake. Answers nullptr when `bus` is null, logind
// does not answer on it (checked once, blocking briefly) or the signal cannot
// be subscribed: no sleep or wake is then reported.
std::unique_ptr<PowerSource> makeLogindPowerSource(sd_bus* bus);

}  // namespace nightjar::platform::linux_adapter
