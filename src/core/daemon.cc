#include "core/daemon.h"

#include <optional>
#include <utility>

#include "api/authorization.h"
#include "api/request_handler.h"
#include "core/clock_change.h"
#include "core/notification_relay.h"
#include "logging/logging.h"
#include "model/event_list.h"
#include "monitors/file_watcher.h"
#include "monitors/system_monitor.h"
#include "notifications/notification_controller.h"
#include "persistence/preferences.h"
#include "platform/linux/daemon_root.h"
#include "platform/linux/dbus_distributed_center.h"
#include "platform/linux/file_preferences_store.h"
#include "platform/linux/file_time_zone_source.h"
#include "platform/linux/inotify_file_change_source.h"
#include "platform/linux/logind_console_user_source.h"
#include "platform/linux/logind_idle_time_source.h"
#include "platform/linux/logind_power_source.h"
#include "platform/linux/logind_sleep_guard.h"
#include "platform/linux/logind_system_sleep.h"
#include "platform/linux/logind_terminal_broadcast.h"
#include "platform/linux/polkit_authority.h"
#include "platform/linux/polkit_policy_file.h"
#include "platform/linux/session_bus_console_notice.h"
#include "platform/linux/spawn_command_runner.h"
#include "runloop/notification_center.h"
#include "scheduling/date_time_queue_controller.h"
#include "scheduling/event_action.h"
#include "scheduling/event_scheduler.h"
#include "scheduling/inactivity_queue_controller.h"
#include "scheduling/power_events.h"
#include "scheduling/queue_controller.h"
#include "state/save_on_change_observer.h"
#include "state/saved_state.h"

namespace nightjar::core {
namespace {

namespace adapter = platform::linux_adapter;

// The file watcher, then the system monitor over the Linux adapters. The
// logind adapters follow logind on the bus by themselves: it may come later,
// go away and come back.
void createMonitors(Daemon& daemon) {
  monitors::fileWatcherCreate(adapter::makeInotifyFileChangeSource(*daemon.loop, daemon.root));
  monitors::SystemMonitorPorts ports;
  ports.consoleUser = adapter::makeLogindConsoleUserSource(daemon.bus.get());
  ports.power = adapter::makeLogindPowerSource(daemon.bus.get());
  ports.sleepGuard = adapter::makeLogindSleepGuard(daemon.bus.get());
  ports.timeZone = adapter::makeFileTimeZoneSource(daemon.root);
  platform::ConsoleUserSource* consoleUser = ports.consoleUser.get();
  monitors::systemMonitorCreate(monitors::fileWatcherGet(), std::move(ports));

  // The console notice reaches the desktop of whoever sits at the console.
  daemon.notice = adapter::makeSessionBusConsoleNotice(
      *daemon.loop, daemon.root, [consoleUser]() -> std::optional<uid_t> {
        if (consoleUser == nullptr || monitors::systemMonitorGet() == nullptr)
          return std::nullopt;
        platform::ConsoleSession session = consoleUser->current();
        if (session.kind != platform::ConsoleSessionKind::User)
          return std::nullopt;
        return session.uid;
      });
}

// Wake entries: the entry file and the RTC, whose alarm is spent once it has
// fired, so it is set again on every wake and after a step of the clock, and
// written out before a sleep while the sleep delay lock still holds the
// system awake.
void createPowerManager(Daemon& daemon) {
  daemon.powerManager = adapter::makeFilePowerManager(daemon.root, daemon.loop.get());
  adapter::FilePowerManager* manager = daemon.powerManager.get();
  scheduling::powerEventsSetManager(manager, &runloop::systemClock());
  const void* monitor = monitors::systemMonitorGet();
  if (manager == nullptr || monitor == nullptr)
    return;
  runloop::localCenter().addObserver(
      manager, [manager](std::string_view, const void*, const plist::Value&) { manager->rearm(); },
      std::string(monitors::kWakeNotification), monitor);
  runloop::localCenter().addObserver(
      manager,
      [manager](std::string_view, const void*, const plist::Value&) {
        manager->rearm();
        manager->flush();
      },
      std::string(monitors::kSleepNotification), monitor);
  // After a step of the clock the alarm is set again too: the entry it was
  // set for may have passed, or may lie ahead once more.
  runloop::localCenter().addObserver(
      manager, [manager](std::string_view, const void*, const plist::Value&) { manager->rearm(); },
      std::string(runloop::kClockChangedNotification), daemon.loop.get());
}

void createActions(Daemon& daemon) {
  daemon.sleep = adapter::makeLogindSystemSleep(daemon.bus.get());
  daemon.commands = adapter::makeSpawnCommandRunner(*daemon.loop, daemon.root);
  scheduling::EventActionPorts ports;
  ports.broadcasts = daemon.distributedCenter.get();
  ports.sleep = daemon.sleep.get();
  ports.commands = daemon.commands.get();
  ports.notice = daemon.notice.get();
  ports.timers = daemon.loop->timerFactory();
  scheduling::eventActionSetUp(std::move(ports));
}

void createAuthorization(Daemon& daemon) {
  api::AuthorizationPorts ports;
  ports.policy = adapter::makePolkitPolicyFile(daemon.root);
  ports.authority =
      adapter::makePolkitAuthority(daemon.bus.get(), adapter::polkitTimeoutFromEnvironment());
  api::authorizationCreate(std::move(ports));
}

// The state is saved at the end of each pass with a change. A reply to a
// request leaves only once what it changed is on disk: replies are held from
// the first change of a pass until the end of that pass, whose stages write
// the wake entries, then the state, then release the replies (with the code
// each earned, also when the save failed), then broadcast.
void createStateSaving(Daemon& daemon) {
  state::persistenceControllerCreate();
  daemon.replyRelease = daemon.loop->addObserver(
      runloop::PassStage::ReleaseReplies,
      [&daemon](runloop::Activity) { api::socketServerReleaseReplies(daemon.server.get()); });
  state::SaveOnChangeHooks hooks;
  hooks.onDirty = [&daemon] { api::socketServerHoldReplies(daemon.server.get()); };
  state::saveOnChangeObserverCreate(daemon.loop.get(), std::move(hooks));
}

void createControllers(Daemon& daemon) {
  notifications::notificationControllerCreate(
      runloop::systemClock(), daemon.loop->timerFactory(), [](const plist::Value& uniqueId) {
        scheduling::eventSchedulerReschedule(scheduling::eventSchedulerGet(), uniqueId);
      });
  scheduling::queueControllerListSetUp();
  if (scheduling::QueueControllerList* list = scheduling::queueControllerListGet()) {
    daemon.zone = adapter::makeFileTimeZoneSource(daemon.root);
    platform::TimeZoneSource* zone = daemon.zone.get();
    scheduling::queueControllerListAppend(
        list,
        scheduling::dateTimeQueueControllerCreate(
            runloop::systemClock(), daemon.loop->timerFactory(), [zone] { zone->current(); }));
    daemon.idle = adapter::makeLogindIdleTimeSource(daemon.bus.get());
    scheduling::queueControllerListAppend(
        list, scheduling::inactivityQueueControllerCreate(daemon.idle.get(), runloop::systemClock(),
                                                          daemon.loop->timerFactory()));
  }
  scheduling::eventSchedulerSetUp(model::eventListGet(), scheduling::queueControllerListGet());
  scheduling::eventSchedulerObserveTimeZone(scheduling::eventSchedulerGet(),
                                            monitors::systemMonitorGet());
  followClockChanges(scheduling::eventSchedulerGet(), daemon.loop.get());
}

void createRelay(Daemon& daemon) {
  if (!relayCreate())
    return;
  NotificationRelay* relay = relayGet();
  relayAddCallbacks(relay, distributedPoster(daemon.distributedCenter.get()));
  if (notifications::NotificationController* warnings = notifications::notificationControllerGet())
    relayObserve(relay, &runloop::localCenter(), warnings);
  if (scheduling::EventScheduler* scheduler = scheduling::eventSchedulerGet())
    relayObserve(relay, &runloop::localCenter(), scheduler);
}

}  // namespace

void buildModules(Daemon& daemon) {
  daemon.preferences = adapter::makeFilePreferencesStore(daemon.root);
  persistence::preferencesSetStore(daemon.preferences.get());
  daemon.bus = adapter::SystemBusConnection::create(*daemon.loop);
  daemon.distributedCenter = adapter::makeDbusDistributedCenter(daemon.bus.get());
  createMonitors(daemon);
  createPowerManager(daemon);
  createActions(daemon);
  createAuthorization(daemon);
  createStateSaving(daemon);
  model::eventListSetUp();
  createControllers(daemon);
  createRelay(daemon);
  daemon.terminalWarnings = notifications::TerminalWarnings::create(
      notifications::notificationControllerGet(),
      adapter::makeLogindTerminalBroadcast(daemon.bus.get(), daemon.root), runloop::systemClock(),
      daemon.loop->timerFactory());
  // A state read and applied as it was needs no write until it changes.
  state::saveOnChangeObserverStartFrom(state::saveOnChangeObserverGet(),
                                       state::persistenceRestore());
}

bool openApiSocket(Daemon& daemon) {
  api::SocketServerFailure failure;
  daemon.server.reset(api::socketServerCreate(
      api::dispatchSocketRequest, adapter::underRoot(daemon.root, api::kSocketPath), &failure));
  if (daemon.server == nullptr) {
    // Logged on purpose: a daemon that stops for want of its socket must say why.
    logging::logMessage(LOG_ERR, "%s: Unable to open the API socket; path: %s; error: %d",
                        failure.step != nullptr ? failure.step : "socketServerCreate",
                        adapter::underRoot(daemon.root, api::kSocketPath).c_str(), failure.error);
    return false;
  }
  return true;
}

void tearDownModules(Daemon& daemon) {
  daemon.replyRelease.reset();
  daemon.server.reset();
  relayDestroy();
  state::persistenceSave();
  scheduling::eventSchedulerTearDown();
  model::eventListTearDown();
  scheduling::queueControllerListTearDown();
  daemon.terminalWarnings.reset();
  notifications::notificationControllerDestroy();
  state::saveOnChangeObserverDestroy();
  state::persistenceControllerDestroy();
  scheduling::eventActionTearDown();
  api::authorizationDestroy();
  runloop::localCenter().removeObserver(daemon.powerManager.get());
  scheduling::powerEventsSetManager(nullptr, nullptr);
  daemon.powerManager.reset();  // writes the entry file and the alarm a last time
  daemon.idle.reset();
  daemon.zone.reset();
  daemon.commands.reset();
  daemon.sleep.reset();
  daemon.notice.reset();
  monitors::systemMonitorDestroy(monitors::fileWatcherGet());
  monitors::fileWatcherDestroy();
  daemon.distributedCenter.reset();
  daemon.bus.reset();  // flushes the broadcasts still queued
  persistence::preferencesSetStore(nullptr);
  daemon.preferences.reset();
}

}  // namespace nightjar::core
