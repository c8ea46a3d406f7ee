// An in-memory preference store. "Disk" is what another process would see;
// the view is what the store answers; synchronize() levels the two.
#pragma once

#include <string>
#include <utility>

#include "platform/preferences_store.h"
#include "plist/xml.h"

namespace nightjar::fakes {

class FakePreferencesStore final : public platform::PreferencesStore {
 public:
  plist::Value copyValue(std::string_view key) override {
    auto it = forced_.find(key);
    return it != forced_.end() ? it->second : view_.get(key);
  }
  bool setValue(std::string_view key, const plist::Value& value) override {
    ++writes_;
    view_ = set(view_, key, value);
    storedBytes_ = plist::writeXml(view_).size();
    if (!failWrites_)
      disk_ = view_;
    return !failWrites_;
  }
  // As the real store: an external change wins; else a failed write is retried.
  void synchronize() override {
    if (std::exchange(changedExternally_, false))
      view_ = disk_;
    else if (!failWrites_)
      disk_ = view_;
  }
  bool isForced(std::string_view key) override { return forced_.contains(key); }
  std::size_t storedBytes() const override { return storedBytes_; }
  std::size_t maxStoredBytes() const override { return maxStoredBytes_; }

  void force(std::string_view key, plist::Value value) { forced_[std::string(key)] = value; }
  void failWrites(bool fail) { failWrites_ = fail; }
  void limitStoredBytes(std::size_t bytes) { maxStoredBytes_ = bytes; }
  // Another process changes the store: seen after the next synchronize().
  void changeExternally(std::string_view key, plist::Value value) {
    disk_ = set(disk_, key, value);
    changedExternally_ = true;
  }
  const plist::Value& disk() const { return disk_; }
  bool stores(std::string_view key) const { return !disk_.get(key).isNone(); }
  int writes() const { return writes_; }

 private:
  static plist::Value set(const plist::Value& in, std::string_view key, const plist::Value& value) {
    return value ? in.with(key, value) : in.without(key);
  }

  plist::Value view_ = plist::Value::dictionary({}), disk_ = view_;
  plist::Dictionary forced_;
  bool failWrites_ = false, changedExternally_ = false;
  int writes_ = 0;
  std::size_t storedBytes_ = 0, maxStoredBytes_ = platform::kMaxStoredFileBytes;
};

}  // namespace nightjar::fakes
