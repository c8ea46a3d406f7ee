// The IdleTimeSource over logind's idle hint.
#pragma once

#include <memory>

#include "platform/idle_time_source.h"
#include "platform/linux/system_bus.h"
#include "runloop/clock.h"

namespace nightjar::platform::linux_adapter {

// Keeps the login manager's IdleHint and IdleSinceHint (microseconds since the
// epoch) as last answered, and asks for both again, asynchronously, at each
// refresh: the idle time is now − IdleSinceHint while IdleHint is true, else 0.
// A failed or late answer, or a hint that makes no sense, reads as 0; while
// there is no bus nothing can be asked and the idle time reads 0.
// `clock` gives "now"; it and `bus` must outlive the source.
std::unique_ptr<IdleTimeSource> makeLogindIdleTimeSource(
    SystemBusConnection* bus, const runloop::Clock& clock = runloop::systemClock());

}  // namespace nightjar::platform::linux_adapter
