// What a warning says to the person at the desk: the action in plain words
// with its local time, the event's name with the time left, and the labels of
// the delay choices.
#pragma once

#include <string>
#include <string_view>

namespace nightjar::agent {

// "Shutdown", "Restart", "Log out", ...; an unknown type as it is.
std::string actionWords(std::string_view actionType);
// Shutdown, restart and logout end what the person is doing.
bool isCritical(std::string_view actionType);

// "Shutdown at 22:30" in local time (TZ); "Shutdown at Tue 06:00" when the
// moment is not on the same day as `now`. Both in Unix seconds.
std::string warningSummary(std::string_view actionType, long long when, long long now);
// "Nightly: 14 minutes left", the minutes rounded up; "1 hour 5 minutes left";
// "Nightly: less than a minute left".
std::string warningBody(std::string_view name, long long secondsLeft);
// The last notice, when the action begins: "Shutdown now".
std::string finalSummary(std::string_view actionType);

// "Delay 10 minutes", "Delay 1 hour", "Delay 1 hour 30 minutes", "Delay 45 seconds".
std::string delayLabel(long seconds);

}  // namespace nightjar::agent
