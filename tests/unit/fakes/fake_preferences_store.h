// An in-memory preference store. "Disk" is what another process would see;
// the view is what the store answers; synchronize() levels the two.
#pragma once

#include <string>
#include <string_view>

#include "platform/preferences_store.h"
#include "plist/xml.h"

namespace nightjar::fakes {

class FakePreferencesStore final : public platform::PreferencesStore {
 public:
  plist::Value copyValue(std::string_view key) override {
    if (auto it = forced_.find(key); it != forced_.end())
      return it->second;
    return view_.get(key);
  }

  bool setValue(std::string_view key, const plist::Value& value) override {
    ++writes_;
    view_ = value ? view_.with(key, value) : view_.without(key);
    storedBytes_ = plist::writeXml(view_).size();
    if (failWrites_)
      return false;
    disk_ = view_;
    return true;
  }

  // As the real store: an external change wins; else a failed write is retried.
  void synchronize() override {
    if (changedExternally_) {
      view_ = disk_;
      changedExternally_ = false;
    } else if (!failWrites_) {
      disk_ = view_;
    }
  }

  bool isForced(std::string_view key) override { return forced_.contains(key); }
  std::size_t storedBytes() const override { return storedBytes_; }
  std::size_t maxStoredBytes() const override { return maxStoredBytes_; }

  // Switches.
  void force(std::string_view key, plist::Value value) { forced_[std::string(key)] = value; }
  void failWrites(bool fail) { failWrites_ = fail; }
  void limitStoredBytes(std::size_t bytes) { maxStoredBytes_ = bytes; }
  // Another process changes the store: seen after the next synchronize().
  void changeExternally(std::string_view key, plist::Value value) {
    disk_ = value ? disk_.with(key, value) : disk_.without(key);
    changedExternally_ = true;
  }

  // Records.
  const plist::Value& disk() const { return disk_; }
  bool stores(std::string_view key) const { return !disk_.get(key).isNone(); }
  int writes() const { return writes_; }

 private:
  plist::Value view_ = plist::Value::dictionary({});
  plist::Value disk_ = plist::Value::dictionary({});
  plist::Dictionary forced_;
  bool failWrites_ = false;
  bool changedExternally_ = false;
  int writes_ = 0;
  std::size_t storedBytes_ = 0;
  std::size_t maxStoredBytes_ = platform::kMaxStoredFileBytes;
};

}  // namespace nightjar::fakes
