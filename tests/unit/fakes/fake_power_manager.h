// An in-memory power manager's list that records every call made to it.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/power_manager.h"

namespace nightjar::fakes {

class FakePowerManager final : public platform::PowerManager {
 public:
  struct Call {
    std::string operation;  // "schedule" or "cancel"
    plist::AbsoluteTime date;
    std::string scheduledBy;
    std::string type;
    bool operator==(const Call&) const = default;
  };

  plist::Value copyEntries() const override {
    ++copies_;
    return unavailable_ ? plist::Value() : plist::Value::array(entries_);
  }
  // As the platform's list: a second equal entry is not added.
  void schedule(plist::AbsoluteTime date, const std::string& scheduledBy,
                const std::string& type) override {
    calls.push_back({"schedule", date, scheduledBy, type});
    plist::Value entry = entryValue(date, scheduledBy, type);
    for (const plist::Value& listed : entries_) {
      if (listed == entry)
        return;
    }
    entries_.push_back(std::move(entry));
  }
  void cancel(plist::AbsoluteTime date, const std::string& scheduledBy,
              const std::string& type) override {
    calls.push_back({"cancel", date, scheduledBy, type});
    if (ignoreCancels_)
      return;
    const plist::Value entry = entryValue(date, scheduledBy, type);
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
      if (*it == entry) {
        entries_.erase(it);
        return;
      }
    }
  }

  static plist::Value entryValue(plist::AbsoluteTime date, const std::string& scheduledBy,
                                 const std::string& type) {
    return plist::Value::dictionary(
        {{platform::kEntryTypeKey, plist::Value::string(type)},
         {platform::kEntryTimeKey, plist::Value::date(date)},
         {platform::kEntryScheduledByKey, plist::Value::string(scheduledBy)}});
  }

  // Switches and set-up.
  void add(plist::Value entry) { entries_.push_back(std::move(entry)); }
  void setUnavailable(bool unavailable) { unavailable_ = unavailable; }
  void ignoreCancels(bool ignore) { ignoreCancels_ = ignore; }

  // Records.
  const plist::Array& entries() const { return entries_; }
  int copies() const { return copies_; }
  std::vector<Call> calls;

 private:
  plist::Array entries_;
  mutable int copies_ = 0;
  bool unavailable_ = false;
  bool ignoreCancels_ = false;
};

}  // namespace nightjar::fakes
