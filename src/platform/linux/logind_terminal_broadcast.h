// The TerminalBroadcast over logind: the terminals of logind's sessions
// (ListSessions, then each session's "TTY"), written under the daemon's root.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/system_bus.h"
#include "platform/terminal_broadcast.h"

namespace nightjar::platform::linux_adapter {

// The device path under `root` of a session's "TTY" ("pts/3", "tty2"); nullopt
// for an empty or unexpected name, so that nothing outside "/dev" is written.
std::optional<std::string> terminalDevicePath(std::string_view root, std::string_view tty);

// Answers nullptr when `bus` is null; `bus` must outlive the broadcast. Each
// message asks logind on the bus of the moment; while there is none, the
// message is dropped.
std::unique_ptr<TerminalBroadcast> makeLogindTerminalBroadcast(SystemBusConnection* bus,
                                                               std::string root);

}  // namespace nightjar::platform::linux_adapter
