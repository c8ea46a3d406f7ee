// The system monitor: the daemon's ear for the console user, system sleep and
// wake, and time-zone changes. It posts each as a notification on the local
// center with itself as object, and keeps the system from idle sleep while an
// event is being performed.
//
// Notifications (no user information unless said):
//   "externalevents.login"    a user session became active at the console;
//                             { "username", "uid", "gid" }, absent ones left out
//   "externalevents.logout"   no session, or the login screen, became active
//   "externalevents.sleep"    the system is about to sleep
//   "externalevents.wake"     the system has powered on again
//   "externalevents.timezone" the system time zone differs from the one last seen
#pragma once

#include <memory>
#include <string_view>

#include "monitors/file_watcher.h"
#include "platform/console_user_source.h"
#include "platform/power_source.h"
#include "platform/sleep_guard.h"
#include "platform/time_zone_source.h"

namespace nightjar::monitors {

inline constexpr std::string_view kLoginNotification = "externalevents.login";
inline constexpr std::string_view kLogoutNotification = "externalevents.logout";
inline constexpr std::string_view kSleepNotification = "externalevents.sleep";
inline constexpr std::string_view kWakeNotification = "externalevents.wake";
inline constexpr std::string_view kTimeZoneNotification = "externalevents.timezone";

// The directory whose changes make the monitor look at the time zone again.
inline constexpr std::string_view kTimeZoneDirectory = "/etc/";

struct SystemMonitor;

// The facilities the monitor listens to. Each may be null: that facility is
// then absent and the monitor runs without it.
struct SystemMonitorPorts {
  std::unique_ptr<platform::ConsoleUserSource> consoleUser;
  std::unique_ptr<platform::PowerSource> power;
  std::unique_ptr<platform::SleepGuard> sleepGuard;
  std::unique_ptr<platform::TimeZoneSource> timeZone;
};

// Makes the process-wide monitor over `ports`; does nothing when it exists.
// With a watcher and a readable time zone it holds that zone and watches
// kTimeZoneDirectory through `watcher`. Answers whether a monitor exists
// afterwards. Run-loop thread only.
bool systemMonitorCreate(FileWatcher* watcher, SystemMonitorPorts ports);
// Tears the monitor down; give it the watcher given to create, so that it can
// drop its watch (null leaves the watch alone). Releases a held sleep guard.
// Does nothing when absent.
void systemMonitorDestroy(FileWatcher* watcher);
SystemMonitor* systemMonitorGet();

// One more, or one fewer, event being performed. While the count is above 0
// idle sleep is refused; the refusal starts (and logs "Dening idle sleep
// request") when the count leaves 0 and ends when it returns there. A null
// monitor: nothing.
void systemMonitorRaiseActivity(SystemMonitor* monitor);
void systemMonitorLowerActivity(SystemMonitor* monitor);

// True when a user, not the login screen, is logged in at the console as last
// learnt. Takes no monitor and uses none of its state: it only asks the
// console-user source, which on this system is the one the monitor was given.
// Without a monitor, or without that source, no console user is known, and the
// answer is false, as when nobody is logged in.
bool isConsoleUserActive();

}  // namespace nightjar::monitors
