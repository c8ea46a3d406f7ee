// The TerminalBroadcast over logind: the terminals of logind's sessions
// (ListSessions, then each session's "TTY"), written under the daemon's root.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/terminal_broadcast.h"

namespace nightjar::platform::linux_adapter {

// The device path under `root` of a session's "TTY" ("pts/3", "tty2"); nullopt
// for an empty or unexpected name, so that nothing outside "/dev" is written.
std::optional<std::string> terminalDevicePath(std::string_view root, std::string_view tty);

// Answers nullptr when `bus` is null. The bus must be attached to the run loop,
// which delivers the answers.
std::unique_ptr<TerminalBroadcast> makeLogindTerminalBroadcast(sd_bus* bus, std::string root);

}  // namespace nightjar::platform::linux_adapter
