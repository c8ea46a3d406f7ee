// The requests of the object "notifications": the dispatcher's parameter
// checks in front of the notification controller's request operations.
// Run-loop thread only.
#pragma once

#include <cstddef>
#include <string_view>

#include "plist/value.h"

namespace nightjar::api {

// Detail keys and messages of the checks.
inline constexpr std::string_view kSecondsDetailKey = "seconds";
inline constexpr std::string_view kDelaySecondsMissing = "DelayBySeconds is NULL.";
inline constexpr std::string_view kTooManyEntries = "Parameter exceeds 2 entries";
inline constexpr std::size_t kMaxDelayEntries = 2;

// Answers the reply record of "notifications.<action>" with `parameter`
// (none when the request carried none): 403 for an unknown action (including
// "notify"), 407 for a parameter sent to a reader, 404 for a missing one, 405
// with the detail record for one that fails its check, else the controller's
// answer (which covers a missing controller).
plist::Value handleNotificationsRequest(std::string_view action, const plist::Value& parameter);

// The detail record of a "notifications.delay" parameter, or none when it
// passes. A parameter that is not a dictionary is refused as a whole.
plist::Value checkDelayParameter(const plist::Value& parameter);

}  // namespace nightjar::api
