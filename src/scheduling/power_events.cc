// The daemon's entries in the power manager's list, named so that it can find,
// avoid duplicating, cancel and purge its own.
#include "scheduling/power_events.h"

#include <cstdio>
#include <utility>
#include <vector>

#include "model/event.h"
#include "platform/distributed_center.h"
#include "scheduling/event_action.h"

namespace nightjar::scheduling {
namespace {

// A sleeping machine wakes this long before an event it must carry out.
constexpr double kPreWakeLead = 30;
// Cancelling is retried while the entry is still listed, at most this often.
constexpr int kCancelTries = 4;
constexpr int kPurgePasses = 2;

struct Slot {
  platform::PowerManager* manager = nullptr;
  const runloop::Clock* clock = nullptr;
};

Slot& slot() {
  static Slot instance;
  return instance;
}

struct Entry {
  std::string_view type;
  plist::AbsoluteTime date;
};

// The entries of the event's action for its trigger date.
std::vector<Entry> entriesFor(const plist::Value& event, plist::AbsoluteTime date) {
  std::vector<Entry> entries;
  if (std::optional<std::string_view> type = eventActionPowerEventType(event))
    entries.push_back({*type, date});
  if (eventActionNeedsPreWake(event))
    entries.push_back({platform::kWakeEntry, date - kPreWakeLead});
  return entries;
}

}  // namespace

void powerEventsSetManager(platform::PowerManager* manager, const runloop::Clock* clock) {
  slot() = manager != nullptr && clock != nullptr ? Slot{manager, clock} : Slot{};
}

std::optional<std::string> powerEventIdentifier(plist::AbsoluteTime date,
                                                const plist::Value& event) {
  const std::string* uniqueId = model::eventUniqueID(event).asString();
  if (uniqueId == nullptr)
    return std::nullopt;
  // "%.0f" rounds to the nearest second, as the identifier's format asks.
  char seconds[64];
  std::snprintf(seconds, sizeof seconds, "%.0f", date);
  return std::string(platform::kProgramIdentifier) + "." + seconds + "." + *uniqueId;
}

void powerEventsScheduleForEvent(const plist::Value& event, plist::AbsoluteTime date) {
  for (const Entry& entry : entriesFor(event, date))
    powerEventsSchedule(entry.type, entry.date, event);
}

void powerEventsCancelForEvent(const plist::Value& event, plist::AbsoluteTime date) {
  for (const Entry& entry : entriesFor(event, date))
    powerEventsCancel(entry.type, entry.date, event);
}

bool powerEventsExists(std::string_view type, plist::AbsoluteTime date, const plist::Value& event) {
  if (slot().manager == nullptr)
    return false;
  const std::optional<std::string> identifier = powerEventIdentifier(date, event);
  return identifier && slot().manager->isListed(*identifier, std::string(type));
}

void powerEventsSchedule(std::string_view type, plist::AbsoluteTime date,
                         const plist::Value& event) {
  const Slot& current = slot();
  if (current.manager == nullptr || !(date > current.clock->now()))
    return;
  const std::optional<std::string> identifier = powerEventIdentifier(date, event);
  if (identifier && !powerEventsExists(type, date, event))
    current.manager->schedule(date, *identifier, std::string(type));
}

void powerEventsCancel(std::string_view type, plist::AbsoluteTime date, const plist::Value& event) {
  const Slot& current = slot();
  if (current.manager == nullptr)
    return;
  const std::optional<std::string> identifier = powerEventIdentifier(date, event);
  if (!identifier)
    return;
  for (int tries = 0; tries < kCancelTries && powerEventsExists(type, date, event); ++tries)
    current.manager->cancel(date, *identifier, std::string(type));
}

// Every listed entry named with this daemon's prefix, whatever event it was
// made for; entries of other programs are left alone.
void powerEventsPurgeAll() {
  platform::PowerManager* manager = slot().manager;
  if (manager == nullptr)
    return;
  const std::string prefix = std::string(platform::kProgramIdentifier) + ".";
  for (int pass = 0; pass < kPurgePasses; ++pass) {
    const plist::Value entries = manager->copyEntries();
    for (std::size_t i = 0; i < entries.count(); ++i) {
      const plist::Value entry = entries.at(i);
      const std::string* by = entry.get(platform::kEntryScheduledByKey).asString();
      const std::string* type = entry.get(platform::kEntryTypeKey).asString();
      const std::optional<plist::AbsoluteTime> time = entry.get(platform::kEntryTimeKey).asDate();
      if (by != nullptr && by->starts_with(prefix) && type != nullptr && time)
        manager->cancel(*time, *by, *type);
    }
  }
}

}  // namespace nightjar::scheduling
