// The IdleTimeSource over logind's idle hint.
#pragma once

#include <memory>

#include "platform/idle_time_source.h"
#include "platform/linux/system_bus.h"
#include "runloop/clock.h"

namespace nightjar::platform::linux_adapter {

// Reads the login manager's IdleHint and IdleSinceHint (microseconds since the
// epoch) at each call, each read bounded to a quarter second: the idle time is
// now − IdleSinceHint while IdleHint is true, else 0. A null `bus`, logind
// away from it, a failed or late call, or a hint that makes no sense all
// answer 0.
// `clock` gives "now"; it must outlive the source.
std::unique_ptr<IdleTimeSource> makeLogindIdleTimeSource(
    SystemBusConnection* bus, const runloop::Clock& clock = runloop::systemClock());

}  // namespace nightjar::platform::linux_adapter
