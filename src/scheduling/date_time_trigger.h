// When a "once" or "daily" event is next due: the trigger computation of the
// date-time controller, as pure functions of the event and the current time.
// Calendar work uses the C library's local zone (scheduling/calendar.h, which
// also states the daylight-saving rule); the caller makes it current first.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "plist/value.h"

namespace nightjar::scheduling {

// The controller's private keys on its own copy of an event.
// The computed next trigger date: the queue's sort key and the timer's target.
inline constexpr std::string_view kTriggerDateKey = "_DateTimeQueueController.Trigger.Date";
// Set when a "daily" occurrence is cancelled: the next one must lie strictly
// after this date.
inline constexpr std::string_view kTriggerConstraintKey =
    "_DateTimeQueueController.Trigger.Constraint";
// Set by a delay: the trigger date may not be earlier than this date.
inline constexpr std::string_view kTriggerDelayKey = "_DateTimeQueueController.Trigger.Delay";

// How far after a cancelled occurrence the next one is looked for.
inline constexpr double kCancelConstraintOffset = 60;
// A "daily" search looks at the day it starts on and the 7 after it.
inline constexpr int kDailySearchDays = 8;

// Weekdays flagged by a "days" array; index 0 = Monday ... 6 = Sunday. Names
// other than the seven weekday names, and members that are not strings, are
// ignored.
using WeekdayFlags = std::array<bool, 7>;
WeekdayFlags weekdayFlagsOf(const plist::Value& days);

// The first instant strictly after `start` at `secondsFromMidnight` on a
// flagged weekday, looking at start's local day and the 7 days after it. The
// weekday tested is that of the day the instant falls on (86400 falls on the
// next day). nullopt when none qualifies or the calendar cannot be had.
std::optional<plist::AbsoluteTime> dailyOccurrenceAfter(plist::AbsoluteTime start,
                                                        std::int32_t secondsFromMidnight,
                                                        const WeekdayFlags& days);

// When `event` is next due at `now`, before the test that the date lies ahead:
//  - "once": the trigger's "date";
//  - "daily": the first flagged occurrence after now + lead (120 s for the
//    wake kinds, else 0), or after the constraint date when that is later;
// then a delay date later than that replaces it. `performed`, when given, is
// the trigger date the event was last performed for: a "daily" occurrence is
// looked for strictly after it, so a clock stepped back never hands out the
// same occurrence twice. nullopt: the event cannot be placed (no trigger,
// another type, no "date", no flagged day within the search, a delay without
// an occurrence, no calendar).
std::optional<plist::AbsoluteTime> dateTimeTriggerCandidate(
    const plist::Value& event, plist::AbsoluteTime now,
    std::optional<plist::AbsoluteTime> performed = std::nullopt);

// The trigger date to store: the candidate when it lies strictly after `now`
// (and after `performed`). A candidate that does not is logged at LOG_INFO as
// "Dropped event: %@ as trigger time: %@, has past." and refused.
std::optional<plist::AbsoluteTime> dateTimeTriggerDate(
    const plist::Value& event, plist::AbsoluteTime now,
    std::optional<plist::AbsoluteTime> performed = std::nullopt);

}  // namespace nightjar::scheduling
