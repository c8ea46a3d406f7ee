// The closed word sets of an event record: trigger types, action types and
// weekdays, each an enum with its table of wire names.
#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace nightjar::model {

enum class TriggerKind { Once, Daily, Inactive };
inline constexpr std::array<std::string_view, 3> kTriggerKindNames = {"once", "daily", "inactive"};

enum class ActionKind { StartUpOrWake, Wake, Sleep, Shutdown, Logout, Restart, FastUserSwitch };
inline constexpr std::array<std::string_view, 7> kActionKindNames = {
    "start up or wake", "wake", "sleep", "shutdown", "logout", "restart", "fast user switch"};

// Numbered as struct tm's tm_wday (Sunday = 0), so calendar code can index by it.
enum class Weekday { Sunday, Monday, Tuesday, Wednesday, Thursday, Friday, Saturday };
inline constexpr std::array<std::string_view, 7> kWeekdayNames = {
    "sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"};

// The kind named by `name` (exact, case-sensitive), or nullopt for any other word.
std::optional<TriggerKind> triggerKindNamed(std::string_view name);
std::optional<ActionKind> actionKindNamed(std::string_view name);
std::optional<Weekday> weekdayNamed(std::string_view name);

std::string_view triggerKindName(TriggerKind kind);
std::string_view actionKindName(ActionKind kind);
std::string_view weekdayName(Weekday day);

}  // namespace nightjar::model
