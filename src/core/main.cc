// nightjard: builds the modules in a fixed order, runs the one run loop until a
// quit or interrupt signal stops it, and tears everything down again.
#include <systemd/sd-daemon.h>

#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "api/authorization.h"
#include "core/command_line.h"
#include "core/descriptors.h"
#include "core/lock_file.h"
#include "core/notification_relay.h"
#include "core/signal_socket.h"
#include "logging/logging.h"
#include "model/event_list.h"
#include "monitors/file_watcher.h"

#include "monitors/system_monitor.h"
#include "persistence/preferences.h"
#include "platform/linux/daemon_root.h"
#include "platform/linux/dbus_distributed_center.h"
#include "platform/linux/file_preferences_store.h"
#include "platform/linux/file_time_zone_source.h"
#include "platform/linux/inotify_file_change_source.h"
#include "platform/linux/logind_bus.h"

#include "platform/linux/logind_console_user_source.h"
#include "platform/linux/logind_power_source.h"
#include "platform/linux/logind_sleep_guard.h"
#include "platform/linux/polkit_policy_file.h"
#include "platform/linux/system_bus.h"
#include "runloop/notification_center.h"
#include "runloop/run_loop.h"

namespace nightjar {
namespace {

using platform::linux_adapter::underRoot;

constexpr char kLockPath[] = "/var/run/nightjard.pid";
constexpr char kDaemonWorkingDirectory[] = "/usr/local/";
constexpr int kExitLockFailed = 1;
constexpr int kExitNoRunLoop = 13;

// Everything the process builds before its run loop, torn down in reverse.
struct Daemon {
  std::string root;
  std::unique_ptr<runloop::RunLoop> loop;
  platform::linux_adapter::BusPtr bus;
  std::unique_ptr<platform::DistributedCenter> distributedCenter;
  std::unique_ptr<platform::PreferencesStore> preferences;
};

void stopHandler(int signal) {
  logging::logMessage(LOG_INFO, "Caught %d signal, quitting", signal);
  if (runloop::RunLoop* loop = runloop::RunLoop::current())
    loop->stop();
}

// The file watcher, then the system monitor over the Linux adapters. logind is
// asked once, within a bounded wait: when it does not answer, every logind
// facility is left out at once instead of each waiting in turn.
void createMonitors(Daemon& daemon) {
  namespace adapter = platform::linux_adapter;
  monitors::fileWatcherCreate(adapter::makeInotifyFileChangeSource(*daemon.loop, daemon.root));
  sd_bus* logindBus = daemon.bus != nullptr && adapter::logind::reachable(daemon.bus.get())
                          ? daemon.bus.get()
                          : nullptr;
  monitors::SystemMonitorPorts ports;
  ports.consoleUser = adapter::makeLogindConsoleUserSource(logindBus);
  ports.power = adapter::makeLogindPowerSource(logindBus);
  ports.sleepGuard = adapter::makeLogindSleepGuard(logindBus);
  ports.timeZone = adapter::makeFileTimeZoneSource(daemon.root);
  monitors::systemMonitorCreate(monitors::fileWatcherGet(), std::move(ports));
}

void buildModules(Daemon& daemon) {
  daemon.preferences = platform::linux_adapter::makeFilePreferencesStore(daemon.root);
  persistence::preferencesSetStore(daemon.preferences.get());
  daemon.bus = platform::linux_adapter::connectSystemBus(*daemon.loop);
  daemon.distributedCenter = platform::linux_adapter::makeDbusDistributedCenter(daemon.bus.get());
  createMonitors(daemon);
  model::eventListSetUp();

  if (core::relayCreate()) {
    core::relayAddCallbacks(core::relayGet(),
                            core::distributedPoster(daemon.distributedCenter.get()));
  }
}

// Runs the loop when the relay exists; answers the exit status.
int runLoop(Daemon& daemon) {
  core::NotificationRelay* relay = core::relayGet();
  if (relay == nullptr || daemon.loop == nullptr)
    return kExitNoRunLoop;
  core::relayQueue(relay, "socket.open");
  // Under systemd (Type=notify) and in the tests: the signals are handled and
  // the socket is served from here on.
  sd_notify(0, "READY=1");
  daemon.loop->run();
  sd_notify(0, "STOPPING=1");
  core::relayQueue(relay, "socket.closed");
  return 0;
}

void tearDown(Daemon& daemon) {
  core::relayDestroy();
  model::eventListTearDown();
  monitors::systemMonitorDestroy(monitors::fileWatcherGet());
  monitors::fileWatcherDestroy();
  daemon.distributedCenter.reset();
  daemon.bus.reset();  // flushes the broadcasts still queued
  persistence::preferencesSetStore(nullptr);
  daemon.preferences.reset();
  daemon.loop.reset();
}

int runDaemon(const core::CommandLine& line) {
  Daemon daemon;
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
    buildModules(daemon);
  }
  int status = runLoop(daemon);
  tearDown(daemon);
  core::stopAdvertising(lockPath);
  return status;
}

}  // namespace
}  // namespace nightjar

int main(int argc, char* argv[]) {
  using namespace nightjar;
  core::ignoreSIGPIPE();
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
