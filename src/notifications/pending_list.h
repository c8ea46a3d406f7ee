// The pending list's rules, free of the controller: when an event is warned,
// how the list is ordered, and the view that clients are shown.
#pragma once

#include <compare>
#include <optional>

#include "plist/value.h"

namespace nightjar::notifications {

// The warn time of an event without a trigger date lies this far ahead of
// now: 100 years of 365 days, never reached.
inline constexpr double kNoWarnInterval = 3153600000.0;

// The event's "metadatatriggerdate"; nullopt when it is missing, not a date,
// or not a finite date (a hand-edited saved state may hold anything).
std::optional<plist::AbsoluteTime> pendingTriggerDate(const plist::Value& event);

// Whether the event's warning was issued ("metadatanotified" present).
bool pendingIsWarned(const plist::Value& event);

// Trigger date less the notify period; nullopt for an event without a trigger
// date, whose warn time is the far future.
std::optional<plist::AbsoluteTime> pendingWarnTime(const plist::Value& event, double notifyPeriod);

// The pending list's order: unwarned events first, soonest warn time first
// (events without a warn time last), then warned events by the date of their
// warning. A strict weak order whatever the records hold.
std::weak_ordering comparePending(const plist::Value& a, const plist::Value& b,
                                  double notifyPeriod);

// What clients see of the pending events: public copies sorted by trigger
// date, each with a trigger date shown as a "once" trigger at that date.
plist::Value pendingView(const plist::Array& events);

}  // namespace nightjar::notifications
