// Everything nightjard builds before its run loop, in the fixed order of
// start-up, and its tear-down in the fixed reverse order. Each module that
// cannot be made stays absent and the daemon runs on without it.
#pragma once

#include <memory>
#include <string>

#include "api/socket_server.h"
#include "notifications/terminal_warnings.h"
#include "platform/command_runner.h"
#include "platform/console_notice.h"
#include "platform/distributed_center.h"
#include "platform/idle_time_source.h"
#include "platform/linux/file_power_manager.h"
#include "platform/linux/system_bus.h"
#include "platform/preferences_store.h"
#include "platform/system_sleep.h"
#include "platform/time_zone_source.h"
#include "runloop/run_loop.h"

namespace nightjar::core {

struct Daemon {
  std::string root;
  std::unique_ptr<runloop::RunLoop> loop;
  // Reconnects by itself; the adapters over it subscribe again each time.
  std::unique_ptr<platform::linux_adapter::SystemBusConnection> bus;
  std::unique_ptr<platform::DistributedCenter> distributedCenter;
  std::unique_ptr<platform::PreferencesStore> preferences;
  std::unique_ptr<platform::linux_adapter::FilePowerManager> powerManager;
  std::unique_ptr<platform::SystemSleep> sleep;
  std::unique_ptr<platform::CommandRunner> commands;
  std::unique_ptr<platform::ConsoleNotice> notice;
  std::unique_ptr<platform::IdleTimeSource> idle;
  // The date-time controller's own view of the system zone: the monitor owns
  // the one it watches, and refreshing the C library's zone is all this does.
  std::unique_ptr<platform::TimeZoneSource> zone;
  std::unique_ptr<notifications::TerminalWarnings> terminalWarnings;
  api::SocketServerPtr server;
  // The end of a pass's ReleaseReplies stage: lets the held replies go.
  std::unique_ptr<runloop::ObserverHandle> replyRelease;
};

// Builds every module up to and including the relay; needs `loop`.
void buildModules(Daemon& daemon);
// Opens the API socket (after the saved state is restored); false when the
// server cannot be made, which is logged.
bool openApiSocket(Daemon& daemon);
// Tears down what buildModules and openApiSocket made, in reverse order.
void tearDownModules(Daemon& daemon);

}  // namespace nightjar::core
