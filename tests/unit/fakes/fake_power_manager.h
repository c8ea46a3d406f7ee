// An in-memory power manager's list that records every call made to it.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "platform/power_manager.h"

namespace nightjar::fakes {

class FakePowerManager final : public platform::PowerManager {
 public:
  struct Call {
    std::string operation;  // "schedule" or "cancel"
    plist::AbsoluteTime date;
    std::string scheduledBy, type;
    bool operator==(const Call&) const = default;
  };

  plist::Value copyEntries() const override {
    ++copies_;
    return unavailable_ ? plist::Value() : plist::Value::array(entries_);
  }
  // As the platform's list: a second equal entry is not added.
  void schedule(plist::AbsoluteTime date, const std::string& by, const std::string& type) override {
    calls.push_back({"schedule", date, by, type});
    const plist::Value entry = entryValue(date, by, type);
    if (std::find(entries_.begin(), entries_.end(), entry) == entries_.end())
      entries_.push_back(entry);
  }
  void cancel(plist::AbsoluteTime date, const std::string& by, const std::string& type) override {
    calls.push_back({"cancel", date, by, type});
    const auto found = std::find(entries_.begin(), entries_.end(), entryValue(date, by, type));
    if (!ignoreCancels_ && found != entries_.end())
      entries_.erase(found);
  }
  static plist::Value entryValue(plist::AbsoluteTime date, const std::string& by,
                                 const std::string& type) {
    return plist::Value::dictionary({{platform::kEntryTypeKey, plist::Value::string(type)},
                                     {platform::kEntryTimeKey, plist::Value::date(date)},
                                     {platform::kEntryScheduledByKey, plist::Value::string(by)}});
  }

  void add(plist::Value entry) { entries_.push_back(std::move(entry)); }
  void setUnavailable(bool unavailable) { unavailable_ = unavailable; }
  void ignoreCancels(bool ignore) { ignoreCancels_ = ignore; }
  const plist::Array& entries() const { return entries_; }
  int copies() const { return copies_; }
  std::vector<Call> calls;

 private:
  plist::Array entries_;
  mutable int copies_ = 0;
  bool unavailable_ = false, ignoreCancels_ = false;
};

}  // namespace nightjar::fakes
