// Notifications to other processes: names broadcast to every login session.
#pragma once

#include <string_view>

#include "plist/value.h"

namespace nightjar::platform {

// The object of every broadcast; also the D-Bus interface name.
inline constexpr std::string_view kProgramIdentifier = "quillon.nightjar";

class DistributedCenter {
 public:
  virtual ~DistributedCenter() = default;
  DistributedCenter() = default;
  DistributedCenter(const DistributedCenter&) = delete;
  DistributedCenter& operator=(const DistributedCenter&) = delete;

  // Broadcasts `name` with `userInfo` (a dictionary) and the program identifier
  // as object. Best effort: a broadcast that cannot be sent is dropped.
  // Run-loop thread only.
  virtual void post(std::string_view name, const plist::Value& userInfo) = 0;
};

}  // namespace nightjar::platform
