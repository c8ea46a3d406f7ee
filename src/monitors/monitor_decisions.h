// The system monitor's choices, as pure functions of what the platform reports.
#pragma once

#include <optional>

#include "platform/console_user_source.h"
#include "platform/time_zone_source.h"

namespace nightjar::monitors {

enum class ConsoleChange { Login, Logout };

// A user session at the console is a login; no session, or the login screen,
// is a logout. Every report counts: the same user reported twice is two logins.
ConsoleChange consoleChangeFor(const platform::ConsoleSession& session);

enum class PowerMessage {
  IdleSleepQuery,      // may the system go to idle sleep?
  SystemWillSleep,     // the system is going to sleep, whatever anyone says
  SystemHasPoweredOn,  // the system woke
};
enum class PowerAnswer { Allow, Refuse };

// Idle sleep is refused while an event is being performed (activity count above
// 0); every other message is allowed.
PowerAnswer answerPowerMessage(PowerMessage message, int activityCount);

// True when the zone read now is known and differs from the one held; then
// the holder adopts `current` and announces the change.
bool timeZoneChanged(const std::optional<platform::TimeZone>& held,
                     const std::optional<platform::TimeZone>& current);

}  // namespace nightjar::monitors
