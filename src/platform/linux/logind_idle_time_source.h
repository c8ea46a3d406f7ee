// The IdleTimeSource over logind's idle hint.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

#include "platform/idle_time_source.h"
#include "runloop/clock.h"

namespace nightjar::platform::linux_adapter {

// Keeps the login manager's IdleHint and IdleSinceHint (microseconds since the
// epoch) as last answered, and asks for both again, asynchronously, at each
// refresh: the idle time is now − IdleSinceHint while IdleHint is true, else 0.
// A failed or late answer, or a hint that makes no sense, reads as 0; with a
// null `bus` (no logind) nothing can be asked and the idle time stays 0.
// `clock` gives "now"; it must outlive the source, and `bus` must be attached
// to the run loop.
std::unique_ptr<IdleTimeSource> makeLogindIdleTimeSource(
    sd_bus* bus, const runloop::Clock& clock = runloop::systemClock());

}  // namespace nightjar::platform::linux_adapter
