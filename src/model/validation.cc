#include "model/validation.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <utility>

#include "model/event.h"
#include "model/event_kinds.h"

namespace nightjar::model {
namespace {

plist::Value text(std::string_view message) {
  return plist::Value::string(std::string(message));
}

// The nested record of a fault in a value that is not a dictionary.
plist::Value elementFault(std::string_view message) {
  return plist::Value::dictionary({{std::string(kElementKey), text(message)}});
}

// Records `fault` as the one entry of `member`, replacing an earlier one.
void setFault(plist::Dictionary& faults, std::string_view member, plist::Value fault) {
  faults.insert_or_assign(std::string(member), std::move(fault));
}

plist::Value answer(plist::Dictionary faults) {
  return faults.empty() ? plist::Value() : plist::Value::dictionary(std::move(faults));
}

// The length fault of a string of 1 to 255 UTF-16 code units, if any.
std::optional<std::string_view> stringFault(const plist::Value& value) {
  const std::string* string = value.asString();
  if (string == nullptr) {
    return message::kMustBeString;
  }
  const std::size_t length = plist::utf16Length(*string);
  if (length > kMaxStringLength) {
    return message::kExceedsMaximumLength;
  }
  if (length == 0) {
    return message::kBelowMinimumLength;
  }
  return std::nullopt;
}

// The number check of "secondsfrommidnight" and "secondsofinactivity". Both
// numeric checks run and the later one wins, so a value such as 86401.5 or
// 1e12 is reported as above the maximum.
std::optional<std::string_view> secondsFault(const plist::Value& value) {
  if (value.isNone()) {
    return message::kRequiredButMissing;
  }
  if (!value.isNumber()) {
    return message::kMustBeNumber;
  }
  std::optional<std::string_view> fault;
  const Int32Conversion converted = toInt32(value);
  if (!converted.exact) {
    fault = message::kLostResolution;
  }
  if (converted.value > kMaxSeconds) {
    fault = message::kAboveMaximum;
  }
  return fault;
}

// A "type" member that must be one of a set of words.
template <typename Named>
std::optional<plist::Value> wordFault(const plist::Value& value, Named named) {
  if (value.isNone()) {
    return text(message::kRequiredButMissing);
  }
  const std::string* word = value.asString();
  if (word == nullptr) {
    return elementFault(message::kMustBeString);
  }
  if (!named(*word)) {
    return elementFault(message::kNotAKnownValue);
  }
  return std::nullopt;
}

// The per-element checks of "days", in order; the last fault found wins.
std::optional<plist::Value> dayElementsFault(const plist::Array& days) {
  std::optional<plist::Value> fault;
  for (std::size_t i = 0; i < days.size(); ++i) {
    for (std::size_t j = 0; j < i; ++j) {
      if (days[i] == days[j]) {
        fault = text(message::kElementsMustBeUnique);
      }
    }
    if (days[i].isNone()) {
      fault = text(message::kElementMustNotBeNull);
    }
  }
  if (days.empty()) {
    fault = text(message::kLessThanOneElement);
  }
  for (const plist::Value& day : days) {
    if (day.isNone()) {
      fault = text(message::kElementMustNotBeNull);
    } else if (const std::string* word = day.asString(); word == nullptr) {
      fault = elementFault(message::kMustBeString);
    } else if (!weekdayNamed(*word)) {
      fault = elementFault(message::kNotAKnownValue);
    }
  }
  return fault;
}

std::optional<plist::Value> daysFault(const plist::Value& value) {
  if (value.isNone()) {
    return text(message::kRequiredButMissing);
  }
  const plist::Array* days = value.asArray();
  if (days == nullptr) {
    return text(message::kMustBeArray);
  }
  // The count check runs last and replaces whatever the element checks found,
  // so they are skipped: this also bounds the work on a hostile array.
  if (days->size() > kMaxDays) {
    return text(message::kMoreThanSevenElements);
  }
  return dayElementsFault(*days);
}

void checkSeconds(plist::Dictionary& faults, const plist::Value& trigger, std::string_view member) {
  if (std::optional<std::string_view> fault = secondsFault(trigger.get(member))) {
    setFault(faults, member, text(*fault));
  }
}

void checkDaily(plist::Dictionary& faults, const plist::Value& trigger) {
  checkSeconds(faults, trigger, kSecondsFromMidnightKey);
  if (std::optional<plist::Value> fault = daysFault(trigger.get(kDaysKey))) {
    setFault(faults, kDaysKey, std::move(*fault));
  }
}

void checkOnce(plist::Dictionary& faults, const plist::Value& trigger) {
  const plist::Value date = trigger.get(kDateKey);
  if (date.isNone()) {
    setFault(faults, kDateKey, text(message::kRequiredButMissing));
  } else if (!date.isDate()) {
    setFault(faults, kDateKey, text(message::kMustBeDate));
  }
}

// The record of an action dictionary (empty when it is valid).
plist::Dictionary actionFaults(const plist::Value& action) {
  plist::Dictionary faults;
  if (std::optional<plist::Value> fault =
          wordFault(action.get(kTypeKey), [](std::string_view w) { return actionKindNamed(w); })) {
    setFault(faults, kTypeKey, std::move(*fault));
  }
  return faults;
}

// A member holding a dictionary that is checked as a unit by `check`.
template <typename Check>
void checkNested(plist::Dictionary& faults, const plist::Value& event, std::string_view member,
                 Check check) {
  const plist::Value value = event.get(member);
  if (value.isNone()) {
    setFault(faults, member, text(message::kRequiredButMissing));
  } else if (!value.isDictionary()) {
    setFault(faults, member, text(message::kMustBeDictionary));
  } else if (plist::Value nested = check(value)) {
    setFault(faults, member, std::move(nested));
  }
}

void checkIdentifier(plist::Dictionary& faults, const plist::Value& event) {
  const plist::Value id = event.get(kUniqueIdKey);
  if (id.isNone()) {
    setFault(faults, kUniqueIdKey, text(message::kRequiredButMissing));
  } else if (plist::Value nested = validateUniqueID(id)) {
    setFault(faults, kUniqueIdKey, std::move(nested));
  }
}

void checkEnabled(plist::Dictionary& faults, const plist::Value& event) {
  const plist::Value enabled = event.get(kEnabledKey);
  if (enabled.isNone()) {
    setFault(faults, kEnabledKey, text(message::kRequiredButMissing));
  } else if (!enabled.isBoolean()) {
    setFault(faults, kEnabledKey, text(message::kMustBeBoolean));
  }
}

void checkName(plist::Dictionary& faults, const plist::Value& event) {
  const plist::Value name = event.get(kNameKey);
  if (name.isNone()) {
    setFault(faults, kNameKey, text(message::kRequiredButMissing));
  } else if (std::optional<std::string_view> fault = stringFault(name)) {
    setFault(faults, kNameKey, text(*fault));
  }
}

}  // namespace

Int32Conversion toInt32(const plist::Value& number) {
  constexpr std::int64_t kMin = std::numeric_limits<std::int32_t>::min();
  constexpr std::int64_t kMax = std::numeric_limits<std::int32_t>::max();
  if (std::optional<std::int64_t> integer = number.asInteger()) {
    return {std::clamp(*integer, kMin, kMax), *integer >= kMin && *integer <= kMax};
  }
  const double real = number.numberAsDouble().value_or(0.0);
  if (std::isnan(real)) {
    return {0, false};
  }
  // Clamped as a double first: casting an out-of-range double is undefined.
  const double truncated = std::trunc(real);
  const double clamped =
      std::clamp(truncated, static_cast<double>(kMin), static_cast<double>(kMax));
  return {static_cast<std::int64_t>(clamped), truncated == real && clamped == truncated};
}

plist::Value validateUniqueID(const plist::Value& id) {
  if (id.isNone()) {
    return plist::Value::dictionary({{std::string(kGeneralKey), text(message::kIdIsNull)}});
  }
  if (std::optional<std::string_view> fault = stringFault(id)) {
    return elementFault(*fault);
  }
  return {};
}

plist::Value validateTrigger(const plist::Value& trigger) {
  if (trigger.isNone()) {
    return plist::Value::dictionary({{std::string(kGeneralKey), text(message::kTriggerIsNull)}});
  }
  plist::Dictionary faults;
  const plist::Value type = trigger.get(kTypeKey);
  if (std::optional<plist::Value> fault =
          wordFault(type, [](std::string_view w) { return triggerKindNamed(w); })) {
    setFault(faults, kTypeKey, std::move(*fault));
    return answer(std::move(faults));
  }
  switch (*triggerKindNamed(*type.asString())) {
    case TriggerKind::Once:
      checkOnce(faults, trigger);
      break;
    case TriggerKind::Daily:
      checkDaily(faults, trigger);
      break;
    case TriggerKind::Inactive:
      checkSeconds(faults, trigger, kSecondsOfInactivityKey);
      break;
  }
  return answer(std::move(faults));
}

plist::Value validateEvent(const plist::Value& event) {
  if (event.isNone()) {
    return plist::Value::dictionary({{std::string(kGeneralKey), text(message::kEventIsNull)}});
  }
  plist::Dictionary faults;
  checkIdentifier(faults, event);
  checkEnabled(faults, event);
  checkName(faults, event);
  checkNested(faults, event, kTriggerKey, validateTrigger);
  checkNested(faults, event, kActionKey,
              [](const plist::Value& action) { return answer(actionFaults(action)); });
  return answer(std::move(faults));
}

}  // namespace nightjar::model
