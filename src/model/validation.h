// The validators of identifiers, triggers and event records.
//
// A validator answers none when the value is valid, and otherwise a validation
// error record: a dictionary that names each fault under the member it
// concerns (a message string, or the nested record of a member checked as a
// unit), under "General" when the checked value is missing, or under "Element"
// when the checked value is not itself a dictionary. Validators log nothing
// and never change what they are given.
//
// Allocation failure is not a value in this program (it ends the process), so
// the "_Memory" entry never appears in a validator's answer; the key is named
// here for the request checks that share the record's form.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "plist/value.h"

namespace nightjar::model {

// Keys of a validation error record other than member names.
inline constexpr std::string_view kGeneralKey = "General";
inline constexpr std::string_view kElementKey = "Element";
inline constexpr std::string_view kMemoryKey = "_Memory";
inline constexpr std::string_view kParameterKey = "Parameter";

// Every message a validator writes, exactly as clients receive it.
namespace message {
inline constexpr std::string_view kIdIsNull = "ID is NULL.";
inline constexpr std::string_view kTriggerIsNull = "Trigger is NULL.";
inline constexpr std::string_view kEventIsNull = "Event is NULL.";
inline constexpr std::string_view kRequiredButMissing = "Required but missing";
inline constexpr std::string_view kMustBeString = "Must be a CFStringRef";
inline constexpr std::string_view kMustBeBoolean = "Must be a CFBooleanRef";
inline constexpr std::string_view kMustBeDate = "Must be a CFDateRef";
inline constexpr std::string_view kMustBeNumber = "Must be a CFNumberRef";
inline constexpr std::string_view kMustBeArray = "Must be a CFArrayRef";
inline constexpr std::string_view kMustBeDictionary = "Must be a CFDictionaryRef";
inline constexpr std::string_view kExceedsMaximumLength = "Exceeds maximum length of 255";
inline constexpr std::string_view kBelowMinimumLength = "Below minimum length of 1";
inline constexpr std::string_view kNotAKnownValue = "Not a known value";
inline constexpr std::string_view kAboveMaximum = "Above maximum of 86400";
inline constexpr std::string_view kLostResolution = "Conversion to integer lost resolution";
inline constexpr std::string_view kElementsMustBeUnique = "Elements must be unique";
inline constexpr std::string_view kElementMustNotBeNull = "Element must not be NULL";
inline constexpr std::string_view kLessThanOneElement = "Less than 1 elements";
inline constexpr std::string_view kMoreThanSevenElements = "More than 7 elements";
inline constexpr std::string_view kUnableToCheckMembers = "Unable to check unknown members.";
}  // namespace message

// Bounds of the checked members.
inline constexpr std::size_t kMaxStringLength = 255;  // UTF-16 code units
inline constexpr std::int64_t kMaxSeconds = 86400;
inline constexpr std::size_t kMaxDays = 7;

// An event identifier: a string of 1 to 255 UTF-16 code units. Any value is
// accepted; faults are reported under "General" (missing) or "Element".
plist::Value validateUniqueID(const plist::Value& id);

// A trigger dictionary. A value that is not a dictionary has no members, so
// it is reported as lacking "type".
plist::Value validateTrigger(const plist::Value& trigger);

// A whole event record. A value that is not a dictionary has no members, so
// every required member is reported missing.
plist::Value validateEvent(const plist::Value& event);

// A number's value read as a 32-bit signed integer: truncated toward zero and
// saturated to the 32-bit range (0 for NaN), with whether that lost nothing.
struct Int32Conversion {
  std::int64_t value;
  bool exact;
};
Int32Conversion toInt32(const plist::Value& number);

}  // namespace nightjar::model
