#include "scheduling/date_time_trigger.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "logging/logging.h"
#include "model/event.h"
#include "model/event_kinds.h"
#include "scheduling/calendar.h"
#include "scheduling/event_action.h"

namespace nightjar::scheduling {
namespace {

using plist::AbsoluteTime;
using plist::Value;

// "secondsfrommidnight" as a signed 32-bit integer, 0 when it is not a
// number; out-of-range numbers saturate.
std::int32_t secondsFromMidnightOf(const Value& trigger) {
  using Limits = std::numeric_limits<std::int32_t>;
  const Value seconds = trigger.get(model::kSecondsFromMidnightKey);
  if (const std::optional<std::int64_t> exact = seconds.asInteger())
    return static_cast<std::int32_t>(
        std::clamp<std::int64_t>(*exact, Limits::min(), Limits::max()));
  const std::optional<double> real = seconds.numberAsDouble();
  if (!real || std::isnan(*real))
    return 0;
  return static_cast<std::int32_t>(
      std::clamp(std::trunc(*real), double{Limits::min()}, double{Limits::max()}));
}

std::optional<AbsoluteTime> dateUnder(const Value& record, std::string_view key) {
  return record.get(key).asDate();
}

std::optional<AbsoluteTime> dailyCandidate(const Value& event, const Value& trigger,
                                           AbsoluteTime now,
                                           std::optional<AbsoluteTime> performed) {
  double lead = eventActionLeadTime(event);
  if (const std::optional<AbsoluteTime> constraint = dateUnder(event, kTriggerConstraintKey))
    lead = std::max(*constraint - now, lead);
  if (performed)
    lead = std::max(*performed - now, lead);
  const WeekdayFlags days = weekdayFlagsOf(trigger.get(model::kDaysKey));
  return dailyOccurrenceAfter(now + lead, secondsFromMidnightOf(trigger), days);
}

}  // namespace

WeekdayFlags weekdayFlagsOf(const Value& days) {
  WeekdayFlags flags{};
  const plist::Array* names = days.asArray();
  if (names == nullptr)
    return flags;
  for (const Value& name : *names) {
    const std::string* text = name.asString();
    const std::optional<model::Weekday> day = text ? model::weekdayNamed(*text) : std::nullopt;
    // Weekday counts from Sunday = 0; the flags from Monday.
    if (day)
      flags[(static_cast<int>(*day) + 6) % 7] = true;
  }
  return flags;
}

std::optional<AbsoluteTime> dailyOccurrenceAfter(AbsoluteTime start,
                                                 std::int32_t secondsFromMidnight,
                                                 const WeekdayFlags& days) {
  const std::optional<LocalDateTime> local = calendarSplit(start);
  if (!local)
    return std::nullopt;
  LocalDay day = local->date;
  for (int attempt = 0; attempt < kDailySearchDays; ++attempt, day = calendarNextDay(day)) {
    // Placed afresh on each day: adding a day would carry a spring-forward shift on.
    const std::optional<AbsoluteTime> t = calendarDateAt(day, secondsFromMidnight);
    const std::optional<int> weekday = t ? calendarWeekday(*t) : std::nullopt;
    if (!weekday)
      return std::nullopt;
    if (*t > start && days[*weekday - 1])
      return t;
  }
  return std::nullopt;
}

std::optional<AbsoluteTime> dateTimeTriggerCandidate(const Value& event, AbsoluteTime now,
                                                     std::optional<AbsoluteTime> performed) {
  const Value trigger = event.get(model::kTriggerKey);
  if (!trigger.isDictionary())
    return std::nullopt;
  const std::string* type = trigger.get(model::kTypeKey).asString();
  std::optional<AbsoluteTime> candidate;
  if (type != nullptr && *type == "once") {
    candidate = dateUnder(trigger, model::kDateKey);
    if (!candidate)
      return std::nullopt;
  } else if (type != nullptr && *type == "daily") {
    candidate = dailyCandidate(event, trigger, now, performed);
  } else {
    return std::nullopt;
  }
  if (const std::optional<AbsoluteTime> delay = dateUnder(event, kTriggerDelayKey)) {
    if (!candidate)
      return std::nullopt;
    if (*candidate < *delay)
      candidate = delay;
  }
  return candidate;
}

std::optional<AbsoluteTime> dateTimeTriggerDate(const Value& event, AbsoluteTime now,
                                                std::optional<AbsoluteTime> performed) {
  const std::optional<AbsoluteTime> candidate = dateTimeTriggerCandidate(event, now, performed);
  if (!candidate)
    return std::nullopt;
  if (!(*candidate > now) || (performed && !(*candidate > *performed))) {
    logging::logMessage(LOG_INFO, "Dropped event: %@ as trigger time: %@, has past.",
                        event.get(model::kNameKey), Value::date(*candidate));
    return std::nullopt;
  }
  return candidate;
}

}  // namespace nightjar::scheduling
