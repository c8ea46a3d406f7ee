#include "persistence/preferences.h"

namespace nightjar::persistence {
namespace {

// The process-wide store slot (see preferencesSetStore).
platform::PreferencesStore* gStore = nullptr;

// Integer and real are one type here: an administrator who writes
// <integer>600</integer> for the notify period means 600 seconds.
bool sameType(const plist::Value& a, const plist::Value& b) {
  if (a.isNumber() && b.isNumber())
    return true;
  return a.kind() == b.kind();
}

}  // namespace

plist::Value engineDefault() {
  return plist::Value::dictionary({});
}

void preferencesSetStore(platform::PreferencesStore* store) {
  gStore = store;
}

platform::PreferencesStore* preferencesStore() {
  return gStore;
}

bool preferencesSetValue(std::string_view key, const plist::Value& value,
                         const plist::Value& defaultValue) {
  if (gStore == nullptr || key.empty() || !value || !defaultValue)
    return true;
  // Look first, so that a key an administrator has just forced is not written.
  gStore->synchronize();
  if (gStore->isForced(key))
    return true;
  return gStore->setValue(key, value == defaultValue ? plist::Value() : value);
}

plist::Value preferencesCopyValue(std::string_view key, const plist::Value& defaultValue) {
  if (key.empty() || !defaultValue)
    return {};
  if (gStore == nullptr)
    return defaultValue;
  gStore->synchronize();
  plist::Value stored = gStore->copyValue(key);
  if (!stored || !sameType(stored, defaultValue))
    return defaultValue;
  return stored;
}

void preferencesSetNumber(std::string_view key, double value, double defaultValue) {
  preferencesSetValue(key, plist::Value::real(value), plist::Value::real(defaultValue));
}

double preferencesGetNumber(std::string_view key, double defaultValue) {
  plist::Value value = preferencesCopyValue(key, plist::Value::real(defaultValue));
  return value.numberAsDouble().value_or(defaultValue);
}

void preferencesSetBoolean(std::string_view key, bool value, bool defaultValue) {
  preferencesSetValue(key, plist::Value::boolean(value), plist::Value::boolean(defaultValue));
}

bool preferencesGetBoolean(std::string_view key, bool defaultValue) {
  plist::Value value = preferencesCopyValue(key, plist::Value::boolean(defaultValue));
  return value.asBoolean().value_or(defaultValue);
}

double preferencesSetAndReadBackNumber(std::string_view key, double requested,
                                       double defaultValue) {
  preferencesSetNumber(key, requested, defaultValue);
  return preferencesGetNumber(key, defaultValue);
}

bool preferencesSetAndReadBackBoolean(std::string_view key, bool requested, bool defaultValue) {
  preferencesSetBoolean(key, requested, defaultValue);
  return preferencesGetBoolean(key, defaultValue);
}

}  // namespace nightjar::persistence
