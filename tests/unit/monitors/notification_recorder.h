// Records what is posted on the local center for one object.
#pragma once

#include <string>
#include <vector>

#include "plist/value.h"
#include "runloop/notification_center.h"

namespace nightjar::testing {

struct NotificationRecorder {
  struct Posted {
    std::string name;
    const void* object;
    plist::Value userInfo;
  };

  explicit NotificationRecorder(const void* object) {
    runloop::localCenter().addObserver(
        this,
        [this](std::string_view name, const void* from, const plist::Value& info) {
          posted.push_back({std::string(name), from, info});
          names.emplace_back(name);
        },
        std::nullopt, object);
  }
  ~NotificationRecorder() { runloop::localCenter().removeObserver(this); }

  std::vector<Posted> posted;
  std::vector<std::string> names;
};

}  // namespace nightjar::testing
