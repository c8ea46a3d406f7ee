// The IdleTimeSource over logind's idle hint.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

#include "platform/idle_time_source.h"
#include "runloop/clock.h"

namespace nightjar::platform::linux_adapter {

// Reads the login manager's IdleHint and IdleSinceHint (microseconds since the
// epoch) at each call, each read bounded to a quarter second: the idle time is
// now − IdleSinceHint while IdleHint is true, else 0. A null `bus` (no
// logind), a failed or late call, or a hint that makes no sense all answer 0.
// `clock` gives "now"; it must outlive the source.
std::unique_ptr<IdleTimeSource> makeLogindIdleTimeSource(
    sd_bus* bus, const runloop::Clock& clock = runloop::systemClock());

}  // namespace nightjar::platform::linux_adapter
