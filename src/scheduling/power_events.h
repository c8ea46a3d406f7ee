// The daemon's own entries in the power manager's list: a wake or power-on
// entry at the trigger date of each wake-kind event, and a wake entry 30 s
// ahead of each event that the daemon must carry out itself. Each entry is
// named "quillon.nightjar.<seconds since 2001>.<uniqueid>", so the daemon can
// find, avoid duplicating, cancel and purge its own entries. Run-loop thread
// only.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/power_manager.h"
#include "plist/value.h"
#include "runloop/clock.h"

namespace nightjar::scheduling {

// Fills the process-wide slot; nullptr empties it. The caller keeps ownership
// and must empty the slot before destroying either. Every operation below does
// nothing (or answers false) while the slot is empty.
void powerEventsSetManager(platform::PowerManager* manager, const runloop::Clock* clock);

// "quillon.nightjar.<date rounded to whole seconds>.<uniqueid>", or nullopt
// when the event has no string "uniqueid".
std::optional<std::string> powerEventIdentifier(plist::AbsoluteTime date,
                                                const plist::Value& event);

// The entries of the event's action for its trigger date `date`.
void powerEventsScheduleForEvent(const plist::Value& event, plist::AbsoluteTime date);
void powerEventsCancelForEvent(const plist::Value& event, plist::AbsoluteTime date);

// One entry: scheduled only when `date` is in the future and no equal entry
// is listed.
void powerEventsSchedule(std::string_view type, plist::AbsoluteTime date,
                         const plist::Value& event);
// Cancels the entry, trying at most 4 times while it is still listed.
void powerEventsCancel(std::string_view type, plist::AbsoluteTime date, const plist::Value& event);
bool powerEventsExists(std::string_view type, plist::AbsoluteTime date, const plist::Value& event);
// Cancels every entry of this daemon, in two passes; other programs' stay.
void powerEventsPurgeAll();

}  // namespace nightjar::scheduling
