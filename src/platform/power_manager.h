// The power manager's list of scheduled wake and power-on entries: what makes
// the hardware wake the machine (or switch it on) at a given date.
#pragma once

#include <string>

#include "plist/value.h"

namespace nightjar::platform {

// Entry types.
inline constexpr char kWakeEntry[] = "wake";
inline constexpr char kWakePowerOnEntry[] = "wakepoweron";

// Keys of one entry as copyEntries answers it.
inline constexpr char kEntryTypeKey[] = "eventtype";
inline constexpr char kEntryTimeKey[] = "time";
inline constexpr char kEntryScheduledByKey[] = "scheduledby";

// The list belongs to the machine, not to the daemon: other programs' entries
// share it and must be left alone. Results of schedule and cancel are not
// reported; callers look at copyEntries when they need to know.
class PowerManager {
 public:
  virtual ~PowerManager() = default;
  PowerManager() = default;
  PowerManager(const PowerManager&) = delete;
  PowerManager& operator=(const PowerManager&) = delete;

  // Every entry, as an array of dictionaries { "eventtype": string, "time":
  // date, "scheduledby": string }, or none when the list cannot be had.
  // Run-loop thread only.
  virtual plist::Value copyEntries() const = 0;
  // Adds one entry. Adding an entry equal to a listed one is harmless.
  virtual void schedule(plist::AbsoluteTime date, const std::string& scheduledBy,
                        const std::string& type) = 0;
  // Removes the entry with that date, identifier and type, if listed.
  virtual void cancel(plist::AbsoluteTime date, const std::string& scheduledBy,
                      const std::string& type) = 0;
  // Whether an entry with that identifier and type is listed, whatever its
  // date. The default looks through copyEntries(); an adapter that keeps an
  // index answers without copying the whole list. Run-loop thread only.
  virtual bool isListed(const std::string& scheduledBy, const std::string& type) const {
    const plist::Value entries = copyEntries();
    for (std::size_t i = 0; i < entries.count(); ++i) {
      const plist::Value entry = entries.at(i);
      const std::string* by = entry.get(kEntryScheduledByKey).asString();
      const std::string* kind = entry.get(kEntryTypeKey).asString();
      if (by != nullptr && kind != nullptr && entry.get(kEntryTimeKey) && *by == scheduledBy &&
          *kind == type)
        return true;
    }
    return false;
  }
};

}  // namespace nightjar::platform
