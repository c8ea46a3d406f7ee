// The saved state: one dictionary under the preference key "engine" holding
//   "events"        the event list's public copies, sorted by name
//   "queues"        controller name -> that controller's queue
//   "notifications" the pending list, private keys included
// An entry is left out when its module does not exist. Nothing here logs
// except the event list, for invalid saved events. Run-loop thread only.
#pragma once

#include <string_view>

#include "plist/value.h"

namespace nightjar::state {

inline constexpr std::string_view kEventsKey = "events";
inline constexpr std::string_view kQueuesKey = "queues";
inline constexpr std::string_view kNotificationsKey = "notifications";

// Builds the saved state from the modules that exist now.
plist::Value persistenceCopyState();

// Writes persistenceCopyState() under "engine". Answers false only when the
// store's write failed; storage then keeps the last good state.
bool persistenceSave();
// The same with a state already built.
bool persistenceSave(const plist::Value& state);

// Applies `state` only when it is a dictionary holding all three keys and the
// event list, the queue controller list and the notification controller all
// exist: events, then notifications, then queues. A member of the wrong type
// ("events" or "notifications" not an array, "queues" not a dictionary) is
// skipped and leaves its module as it is; the other members still apply.
// Answers whether the state applied.
bool persistenceApplyState(const plist::Value& state);

// Reads "engine" (default: the empty dictionary) and applies it unless it is
// the empty dictionary. Answers the state it applied, else none.
plist::Value persistenceRestore();

// The module's process-wide marker, kept from create to destroy.
void persistenceControllerCreate();
void persistenceControllerDestroy();
// "persistenceController" while created, else empty.
std::string_view persistenceControllerName();

}  // namespace nightjar::state
