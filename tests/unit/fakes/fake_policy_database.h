// A PolicyDatabase in memory that records its changes and fails on demand.
#pragma once

#include <cerrno>
#include <map>
#include <string>
#include <vector>

#include "platform/policy_database.h"

namespace nightjar::testing {

class FakePolicyDatabase final : public platform::PolicyDatabase {
 public:
  plist::Value rule(std::string_view right) override {
    ++lookups;
    auto it = rights.find(right);
    return it == rights.end() ? plist::Value() : it->second;
  }
  int setRight(std::string_view right, const plist::Value& rule) override {
    changes.push_back("set " + std::string(right));
    if (auto it = setFailures.find(right); it != setFailures.end())
      return it->second;
    rights.insert_or_assign(std::string(right), rule);
    return 0;
  }
  int removeRight(std::string_view right) override {
    changes.push_back("remove " + std::string(right));
    if (auto it = removeFailures.find(right); it != removeFailures.end())
      return it->second;
    return rights.erase(std::string(right)) == 1 ? 0 : ENOENT;
  }

  std::map<std::string, plist::Value, std::less<>> rights;
  // Right -> error number that setRight / removeRight answer for it.
  std::map<std::string, int, std::less<>> setFailures, removeFailures;
  std::vector<std::string> changes;
  int lookups = 0;
};

}  // namespace nightjar::testing
