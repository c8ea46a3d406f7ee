// The ConsoleNotice over the desktop's notification server
// (org.freedesktop.Notifications) on the console user's session bus.
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/console_notice.h"
#include "runloop/run_loop.h"

namespace nightjar::platform::linux_adapter {

// The uid of the user logged in at the console, or nullopt when nobody is.
using ConsoleUid = std::function<std::optional<uid_t>()>;

// Looks for the session bus at "<root>/run/user/<uid>/bus" of the uid that
// `consoleUid` answers at each show(). The connection is made with that uid
// as the effective one (when the daemon runs as root), so that the user's bus
// accepts it and the daemon opens nothing with more rights than the user has.
// Nothing waits on the user's bus: the connection and the calls run on `loop`.
std::unique_ptr<ConsoleNotice> makeSessionBusConsoleNotice(runloop::RunLoop& loop, std::string root,
                                                           ConsoleUid consoleUid);

}  // namespace nightjar::platform::linux_adapter
