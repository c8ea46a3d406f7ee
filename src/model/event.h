// The event record: a property-list dictionary describing one scheduled power
// event, its accessors, the by-key ordering and the public copy handed out to
// clients and to the saved state.
//
// Records are immutable Values; nothing here changes a record it is given.
// "none" (a default Value) stands for an absent record or member.
#pragma once

#include <compare>
#include <optional>
#include <string_view>

#include "plist/value.h"

namespace nightjar::model {

// Public members of an event record.
inline constexpr std::string_view kUniqueIdKey = "uniqueid";
inline constexpr std::string_view kNameKey = "name";
inline constexpr std::string_view kEnabledKey = "enabled";
inline constexpr std::string_view kTriggerKey = "trigger";
inline constexpr std::string_view kActionKey = "action";
// Members of the trigger and action dictionaries.
inline constexpr std::string_view kTypeKey = "type";
inline constexpr std::string_view kDateKey = "date";
inline constexpr std::string_view kSecondsFromMidnightKey = "secondsfrommidnight";
inline constexpr std::string_view kDaysKey = "days";
inline constexpr std::string_view kSecondsOfInactivityKey = "secondsofinactivity";

// Keys beginning with this prefix are a module's private metadata on its own
// copy of an event; public copies drop them.
inline constexpr std::string_view kPrivateKeyPrefix = "_";

// The value under "uniqueid"; none when `event` is none, not a dictionary, or
// lacks the key.
plist::Value eventUniqueID(const plist::Value& event);
// True only when "enabled" is present and holds the boolean true.
bool eventIsEnabled(const plist::Value& event);
// The "type" inside "trigger"; none when the record or "trigger" is missing or
// "trigger" is not a dictionary.
plist::Value eventTriggerType(const plist::Value& event);
// The "type" inside "action", under the same conditions.
plist::Value eventActionType(const plist::Value& event);

// Ascending order of two records by their values under `key`:
//  - a record lacking the key sorts after every record that has it;
//  - strings compare by UTF-16 code unit (case-sensitive, no locale);
//  - dates compare chronologically;
//  - all other kinds compare equal among themselves.
// Mixed kinds order strings before dates before all other kinds, and a NaN date
// after every other date, so the result is always a strict weak order and safe
// to sort with whatever the records hold.
std::weak_ordering compareEventsByKey(const plist::Value& a, const plist::Value& b,
                                      std::string_view key);

// A public copy of one record: the same members without the top-level keys
// that begin with "_" (nested dictionaries are not examined). A record with no
// such key, or a value that is not a dictionary, is answered as it is: values
// are immutable, so sharing it is indistinguishable from copying it.
plist::Value publicEvent(const plist::Value& event);

// The public copies of `events`, in their order, or stably sorted by
// compareEventsByKey on `sortKey` when one is given.
plist::Array copyPublicEvents(const plist::Array& events,
                              std::optional<std::string_view> sortKey = std::nullopt);
// As above for an array value; none when `events` is none or not an array.
plist::Value copyPublicEvents(const plist::Value& events,
                              std::optional<std::string_view> sortKey = std::nullopt);

}  // namespace nightjar::model
