// Keeps the service manager's status line (sd_notify "STATUS=") in step with
// the events: checked once at the end of each run-loop pass, sent only when
// the count or the next event changed.
#pragma once

#include <memory>

#include "runloop/run_loop.h"

namespace nightjar::core {

// Reports from the loop's passes until the handle is destroyed; nullptr when
// the loop cannot observe.
std::unique_ptr<runloop::ObserverHandle> statusReporterStart(runloop::RunLoop& loop);

}  // namespace nightjar::core
