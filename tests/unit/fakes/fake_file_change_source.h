// A FileChangeSource that hands out one id per path; the test reports changes
// by hand.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/file_change_source.h"

namespace nightjar::testing {

class FakeFileChangeSource final : public platform::FileChangeSource {
 public:
  void setChangeHandler(ChangeHandler next) override { handler = std::move(next); }
  // Paths in `unwatchable` fail; a path in `sameFile` gets the id of the path
  // it names; every other path gets a fresh id.
  std::optional<WatchId> add(std::string_view path) override {
    const std::string& key = adds.emplace_back(path);
    if (unwatchable.contains(key))
      return std::nullopt;
    if (sameFile.contains(key))
      return ids.at(sameFile.at(key));
    return ids[key] = static_cast<WatchId>(ids.size()) + 1;
  }
  void remove(WatchId id) override { removes.push_back(id); }
  void change(const std::string& path) { handler(ids.at(path)); }

  ChangeHandler handler;
  std::set<std::string> unwatchable;
  std::map<std::string, std::string> sameFile;
  std::map<std::string, WatchId> ids;
  std::vector<std::string> adds;
  std::vector<WatchId> removes;
};

}  // namespace nightjar::testing
