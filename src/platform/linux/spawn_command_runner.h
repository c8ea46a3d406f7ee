// The CommandRunner over posix_spawn, with the children reaped by the run loop.
#pragma once

#include <memory>
#include <string>

#include "platform/command_runner.h"
#include "runloop/run_loop.h"

namespace nightjar::platform::linux_adapter {

// Starts tools under `root` (see daemon_root.h): a command's path
// "/usr/local/nightjar/bin/perch" runs "<root>/usr/local/nightjar/bin/perch".
//
// Blocks SIGCHLD in the calling thread for the rest of the process: sd-event
// refuses to watch children unless it is blocked, since it learns of their
// exit through a pidfd or a signalfd, never a handler. Call it on the run-loop
// thread before any other thread exists. Started tools get an empty signal
// mask and default signal actions again. Answers nullptr when SIGCHLD cannot
// be blocked.
std::unique_ptr<CommandRunner> makeSpawnCommandRunner(runloop::RunLoop& loop, std::string root);

}  // namespace nightjar::platform::linux_adapter
