// A DistributedCenter that records every broadcast.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/distributed_center.h"

namespace nightjar::testing {

class FakeDistributedCenter final : public platform::DistributedCenter {
 public:
  struct Broadcast {
    std::string name;
    plist::Value userInfo;
  };

  void post(std::string_view name, const plist::Value& userInfo) override {
    broadcasts.push_back({std::string(name), userInfo});
    if (trace)
      trace("post " + std::string(name));
  }
  std::vector<std::string> names() const {
    std::vector<std::string> out;
    for (const Broadcast& broadcast : broadcasts)
      out.push_back(broadcast.name);
    return out;
  }

  std::vector<Broadcast> broadcasts;
  std::function<void(const std::string&)> trace;
};

}  // namespace nightjar::testing
