// The requests of the object "scheduler": read and replace the event list,
// set or remove one event, and switch all scheduling on or off. The request's
// form and the caller's right have been checked by the dispatcher already.
// Run-loop thread only.
#pragma once

#include <string_view>

#include "plist/value.h"

namespace nightjar::api {

// Detail keys of the parameter checks.
inline constexpr std::string_view kEnabledDetailKey = "enabled";
inline constexpr std::string_view kEventsDetailKey = "events";
inline constexpr std::string_view kEventDetailKey = "event";
inline constexpr std::string_view kUniqueIdDetailKey = "uniqueid";

// The name posted on the local center, for the scheduler, after "setenabled".
inline constexpr std::string_view kSchedulerEnabledNotification = "scheduler.enabled";

// Answers the reply record of "scheduler.<action>" with `parameter` (none when
// the request carried none): 403 for an unknown action, 407 for a parameter
// sent to a reader, 404 for a missing one, 405 with the detail record for one
// that fails its check, else the operation's response record.
plist::Value handleSchedulerRequest(std::string_view action, const plist::Value& parameter);

// The operations behind the actions. The readers answer a value (none when
// the module they read does not exist); the others answer a response record.
plist::Value schedulerCopyEnabled();
plist::Value schedulerSetEnabled(const plist::Value& enabled);
plist::Value schedulerCopyEvents();
// All or nothing: when any member is not a valid event record the list is
// left untouched and the reply lists the validation error records of the
// invalid members, in order.
plist::Value schedulerSetEvents(const plist::Value& events);
plist::Value schedulerSetEvent(const plist::Value& event);
plist::Value schedulerRemoveEvent(const plist::Value& uniqueId);

}  // namespace nightjar::api
