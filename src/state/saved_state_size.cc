#include "state/saved_state_size.h"

#include <optional>

#include "persistence/preferences.h"
#include "plist/xml.h"

namespace nightjar::state {
namespace {

// Copies of one event: the list, one queue, the pending list.
constexpr std::size_t kCopies = 3;
// Per copy: the queue's private date, the trigger and warning dates of the
// pending list, and one more level of indentation on each line.
constexpr std::size_t kCopyOverhead = 512;

struct SizeAccount {
  std::optional<std::size_t> base;  // none: the store's own measure
  std::size_t admitted = 0;
};

SizeAccount gAccount;

// The limit less a sixteenth: warning dates and queue keys added after a
// change was admitted, and events queued again after the scheduler was
// enabled, must still fit.
std::size_t admissionLimit(const platform::PreferencesStore& store) {
  const std::size_t limit = store.maxStoredBytes();
  return limit - limit / 16;
}

}  // namespace

std::size_t savedEventBytes(const plist::Value& event) {
  return kCopies * (plist::writeXml(event).size() + kCopyOverhead);
}

std::size_t savedStateProjectedBytes() {
  const platform::PreferencesStore* store = persistence::preferencesStore();
  const std::size_t base = gAccount.base.value_or(store != nullptr ? store->storedBytes() : 0);
  return base + gAccount.admitted;
}

bool savedStateAdmits(std::size_t bytes) {
  const platform::PreferencesStore* store = persistence::preferencesStore();
  if (store == nullptr)
    return true;
  const std::size_t projected = savedStateProjectedBytes();
  if (projected > admissionLimit(*store) || bytes > admissionLimit(*store) - projected)
    return false;
  gAccount.admitted += bytes;
  return true;
}

bool savedStateAdmitsReplacement(std::size_t bytes) {
  const platform::PreferencesStore* store = persistence::preferencesStore();
  if (store == nullptr)
    return true;
  if (bytes > admissionLimit(*store))
    return false;
  // What stays besides the events (settings, the empty queues) is small and
  // within the reserve.
  gAccount.base = 0;
  gAccount.admitted = bytes;
  return true;
}

void savedStateSizeSaved() {
  gAccount = {};
}

}  // namespace nightjar::state
