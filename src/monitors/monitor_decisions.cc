#include "monitors/monitor_decisions.h"

namespace nightjar::monitors {

ConsoleChange consoleChangeFor(const platform::ConsoleSession& session) {
  return session.kind == platform::ConsoleSessionKind::User ? ConsoleChange::Login
                                                            : ConsoleChange::Logout;
}

PowerAnswer answerPowerMessage(PowerMessage message, int activityCount) {
  if (message == PowerMessage::IdleSleepQuery && activityCount > 0)
    return PowerAnswer::Refuse;
  return PowerAnswer::Allow;
}

bool timeZoneChanged(const std::optional<platform::TimeZone>& held,
                     const std::optional<platform::TimeZone>& current) {
  return current.has_value() && current != held;
}

}  // namespace nightjar::monitors
