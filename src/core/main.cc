// nightjard: builds the modules in a fixed order, runs the one run loop until a
// quit or interrupt signal stops it, and tears everything down again.
#include <systemd/sd-daemon.h>

#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "api/authorization.h"
#include "api/perform_wait.h"
#include "core/command_line.h"
#include "core/daemon.h"
#include "core/lock_file.h"
#include "core/notification_relay.h"
#include "core/signal_socket.h"
#include "core/status_reporter.h"
#include "logging/logging.h"
#include "platform/linux/daemon_root.h"
#include "platform/linux/polkit_policy_file.h"
#include "runloop/descriptors.h"
#include "runloop/run_loop.h"

namespace nightjar {
namespace {

using platform::linux_adapter::underRoot;

constexpr char kLockPath[] = "/var/run/nightjard.pid";
constexpr char kDaemonWorkingDirectory[] = "/usr/local/";
constexpr int kExitLockFailed = 1;
constexpr int kExitNoRunLoop = 13;

// The loop stops once settled: an event being performed is finished (action,
// "event.didperform", rescheduling) and the requests that waited for it are
// answered, as when the pause blocked the loop and the signal waited behind it.
void stopHandler(int signal) {
  logging::logMessage(LOG_INFO, "Caught %d signal, quitting", signal);
  api::performWaitWhenSettled([] {
    if (runloop::RunLoop* loop = runloop::RunLoop::current())
      loop->stop();
  });
}

// Runs the loop when the relay and the API socket exist; answers the exit
// status.
int runLoop(core::Daemon& daemon) {
  core::NotificationRelay* relay = core::relayGet();
  if (relay == nullptr || daemon.loop == nullptr || !core::openApiSocket(daemon))
    return kExitNoRunLoop;
  core::relayQueue(relay, "socket.open");
  // Under systemd (Type=notify) and in the tests: the signals are handled and
  // the socket is served from here on.
  sd_notify(0, "READY=1");
  // With WatchdogSec= set, sd-event sends WATCHDOG=1 at half the interval from
  // the loop itself, so a hung loop stops it and is restarted; otherwise this
  // does nothing.
  sd_event_set_watchdog(daemon.loop->event(), 1);
  std::unique_ptr<runloop::ObserverHandle> status = core::statusReporterStart(*daemon.loop);
  daemon.loop->run();
  status.reset();
  sd_notify(0, "STOPPING=1");
  core::relayQueue(relay, "socket.closed");
  return 0;
}

int runDaemon(const core::CommandLine& line) {
  core::Daemon daemon;
  daemon.root = platform::linux_adapter::daemonRoot();
  const std::string lockPath = underRoot(daemon.root, kLockPath);
  if (!core::advertise(lockPath)) {
    logging::logMessage(LOG_ERR, "Stopping, failed to claim unique lock: %s", lockPath.c_str());
    return kExitLockFailed;
  }
  if (line.daemonise) {
    logging::closeLog();
    core::daemonise(underRoot(daemon.root, kDaemonWorkingDirectory));
    logging::openSystemLog();  // standard error is closed now, whatever NIGHTJAR_LOG says
    // The file was claimed before the fork; now it names the process that
    // goes on running, so that `kill $(cat …)` reaches the daemon.
    core::advertise(lockPath);
  }

  daemon.loop = runloop::RunLoop::create();
  if (daemon.loop != nullptr) {
    core::SignalCallbacks callbacks;
    callbacks.quit = stopHandler;
    callbacks.interrupt = stopHandler;
    core::installSignalHandlers(*daemon.loop, std::move(callbacks));
    core::buildModules(daemon);
  }
  int status = runLoop(daemon);
  core::tearDownModules(daemon);
  daemon.loop.reset();
  core::stopAdvertising(lockPath);
  return status;
}

}  // namespace
}  // namespace nightjar

int main(int argc, char* argv[]) {
  using namespace nightjar;
  runloop::ignoreSIGPIPE();
  runloop::ignoreSIGXFSZ();
  runloop::raiseDescriptorLimit();
  logging::openLog();
  const core::CommandLine line = core::parseCommandLine(argc, argv);
  int status = 0;
  switch (line.command) {
    case core::Command::Run:
      status = runDaemon(line);
      break;
    case core::Command::Version:
      std::fputs(core::versionText().c_str(), stdout);
      break;
    case core::Command::Usage:
      std::fputs(core::usageText(argv[0]).c_str(), stdout);
      break;
    case core::Command::InstallRights:
    case core::Command::RemoveRights: {
      // Failures are logged per right; the exit status does not tell them.
      auto rights =
          platform::linux_adapter::makePolkitPolicyFile(platform::linux_adapter::daemonRoot());
      if (line.command == core::Command::InstallRights)
        api::installDefaultRights(*rights);
      else
        api::uninstallRights(*rights);
      break;
    }
  }
  logging::closeLog();
  return status;
}
