// Typed access to the daemon's preferences, the table of keys, and the one
// pattern in which settings change: write, read back, adopt what was read.
//
// The store is process-wide: one slot, filled by main. Every operation accepts
// an empty slot and then does nothing or answers the default. Nothing here
// logs; only preferencesSetValue reports a failed write. Run-loop thread only.
#pragma once

#include <string_view>

#include "platform/preferences_store.h"
#include "plist/value.h"

namespace nightjar::persistence {

// Keys and their defaults. A key whose value equals its default is not stored.
inline constexpr std::string_view kEngineKey = "engine";  // default: empty dictionary
inline constexpr std::string_view kNotifyPeriodKey = "notificationcontroller.notifyperiod";
inline constexpr double kNotifyPeriodDefault = 900;  // seconds
inline constexpr std::string_view kSchedulerEnabledKey = "eventscheduler.enabled";
inline constexpr bool kSchedulerEnabledDefault = true;
inline constexpr std::string_view kConsoleNotifierKey = "eventaction.cfnotifier";
inline constexpr bool kConsoleNotifierDefault = false;

// The default of "engine": the empty dictionary.
plist::Value engineDefault();

// Fills the slot; nullptr empties it. The caller keeps ownership and must
// empty the slot before destroying the store.
void preferencesSetStore(platform::PreferencesStore* store);
platform::PreferencesStore* preferencesStore();

// Stores `value` under `key`, or removes the key when `value` equals
// `defaultValue`. Does nothing when the key is empty, either value is none, or
// an administrator has forced the key. Answers false only when the store's
// write failed (storage keeps its previous contents); true otherwise.
bool preferencesSetValue(std::string_view key, const plist::Value& value,
                         const plist::Value& defaultValue);

// Re-reads the store first, so that changes made by another process are seen,
// then answers the stored value, or `defaultValue` when none is stored or the
// stored value is of another type than `defaultValue` (integer and real count
// as one type). Answers none only when the key is empty or `defaultValue` none.
plist::Value preferencesCopyValue(std::string_view key, const plist::Value& defaultValue);

// The same for numbers (stored as reals) and booleans.
void preferencesSetNumber(std::string_view key, double value, double defaultValue);
double preferencesGetNumber(std::string_view key, double defaultValue);
void preferencesSetBoolean(std::string_view key, bool value, bool defaultValue);
bool preferencesGetBoolean(std::string_view key, bool defaultValue);

// The settings pattern: writes `requested`, reads it straight back and answers
// what was read, which the caller adopts. The caller acts on the change
// (re-arm, announce) only when the answer equals `requested`, so that a forced
// value wins silently.
double preferencesSetAndReadBackNumber(std::string_view key, double requested, double defaultValue);
bool preferencesSetAndReadBackBoolean(std::string_view key, bool requested, bool defaultValue);

}  // namespace nightjar::persistence
