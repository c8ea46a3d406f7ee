#include "monitors/system_monitor.h"

#include <optional>
#include <string>

#include "logging/logging.h"
#include "monitors/monitor_decisions.h"
#include "runloop/notification_center.h"

namespace nightjar::monitors {

struct SystemMonitor {
  SystemMonitorPorts ports;
  int activityCount = 0;
  bool refusingIdleSleep = false;
  std::optional<platform::TimeZone> timeZone;  // as last seen
  bool watchingTimeZoneDirectory = false;
};

namespace {

std::unique_ptr<SystemMonitor>& slot() {
  static std::unique_ptr<SystemMonitor> monitor;
  return monitor;
}

void post(SystemMonitor* monitor, std::string_view name, const plist::Value& userInfo = {}) {
  runloop::localCenter().post(name, monitor, userInfo);
}

plist::Value loginUserInfo(const platform::ConsoleSession& session) {
  plist::Dictionary info;
  if (!session.name.empty())
    info.emplace("username", plist::Value::string(session.name));
  info.emplace("uid", plist::Value::integer(session.uid));
  if (session.gid)
    info.emplace("gid", plist::Value::integer(*session.gid));
  return plist::Value::dictionary(std::move(info));
}

void onConsoleChange(SystemMonitor* monitor, const platform::ConsoleSession& session) {
  switch (consoleChangeFor(session)) {
    case ConsoleChange::Login:
      post(monitor, kLoginNotification, loginUserInfo(session));
      break;
    case ConsoleChange::Logout:
      post(monitor, kLogoutNotification);
      break;
  }
}

// Holds or releases the sleep guard when the answer to an idle-sleep query
// changes, so that the power manager is told once per change, not per event.
void onActivityChange(SystemMonitor* monitor) {
  const bool refuse = answerPowerMessage(PowerMessage::IdleSleepQuery, monitor->activityCount) ==
                      PowerAnswer::Refuse;
  if (refuse == monitor->refusingIdleSleep)
    return;
  monitor->refusingIdleSleep = refuse;
  platform::SleepGuard* guard = monitor->ports.sleepGuard.get();
  if (guard == nullptr)
    return;
  if (refuse) {
    guard->hold();
    logging::logMessage(LOG_INFO, "Dening idle sleep request");
  } else {
    guard->release();
  }
}

void checkTimeZone(SystemMonitor* monitor) {
  std::optional<platform::TimeZone> current = monitor->ports.timeZone->current();
  if (!timeZoneChanged(monitor->timeZone, current))
    return;
  monitor->timeZone = std::move(current);
  post(monitor, kTimeZoneNotification);
}

void startConsoleUser(SystemMonitor* monitor) {
  if (monitor->ports.consoleUser == nullptr)
    return;
  monitor->ports.consoleUser->setChangeHandler(
      [monitor](const platform::ConsoleSession& session) { onConsoleChange(monitor, session); });
}

void startPower(SystemMonitor* monitor) {
  if (monitor->ports.power == nullptr)
    return;
  monitor->ports.power->setHandlers({
      .willSleep = [monitor] { post(monitor, kSleepNotification); },
      .didWake = [monitor] { post(monitor, kWakeNotification); },
  });
}

// Without a watcher, or without a zone to compare with, changes go unnoticed.
void startTimeZone(SystemMonitor* monitor, FileWatcher* watcher) {
  if (watcher == nullptr || monitor->ports.timeZone == nullptr)
    return;
  monitor->timeZone = monitor->ports.timeZone->current();
  if (!monitor->timeZone)
    return;
  fileWatcherAdd(watcher, kTimeZoneDirectory);
  monitor->watchingTimeZoneDirectory = true;
  runloop::localCenter().addObserver(
      monitor,
      [monitor](std::string_view, const void*, const plist::Value&) { checkTimeZone(monitor); },
      std::string(kTimeZoneDirectory), watcher);
}

}  // namespace

bool systemMonitorCreate(FileWatcher* watcher, SystemMonitorPorts ports) {
  if (slot() != nullptr)
    return true;
  auto monitor = std::make_unique<SystemMonitor>();
  monitor->ports = std::move(ports);
  startConsoleUser(monitor.get());
  startPower(monitor.get());
  startTimeZone(monitor.get(), watcher);
  slot() = std::move(monitor);
  return true;
}

void systemMonitorDestroy(FileWatcher* watcher) {
  std::unique_ptr<SystemMonitor> monitor = std::move(slot());
  if (monitor == nullptr)
    return;
  runloop::localCenter().removeObserver(monitor.get());
  monitor->ports.consoleUser.reset();
  if (watcher != nullptr && monitor->watchingTimeZoneDirectory) {
    fileWatcherRemove(watcher, kTimeZoneDirectory);
    monitor->watchingTimeZoneDirectory = false;
    monitor->timeZone.reset();
  }
  monitor->ports.power.reset();
  monitor->ports.sleepGuard.reset();
}

SystemMonitor* systemMonitorGet() {
  return slot().get();
}

void systemMonitorRaiseActivity(SystemMonitor* monitor) {
  if (monitor == nullptr)
    return;
  ++monitor->activityCount;
  onActivityChange(monitor);
}

void systemMonitorLowerActivity(SystemMonitor* monitor) {
  if (monitor == nullptr)
    return;
  --monitor->activityCount;
  onActivityChange(monitor);
}

bool isConsoleUserActive() {
  const SystemMonitor* monitor = slot().get();
  if (monitor == nullptr || monitor->ports.consoleUser == nullptr)
    return false;
  return monitor->ports.consoleUser->current().kind == platform::ConsoleSessionKind::User;
}

}  // namespace nightjar::monitors
