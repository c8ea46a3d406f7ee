// A SleepGuard that records its holds and releases.
#pragma once

#include "platform/sleep_guard.h"

namespace nightjar::testing {

struct FakeSleepGuard final : platform::SleepGuard {
  void hold() override { ++holds; }
  void release() override { ++releases; }
  bool held() const { return holds > releases; }
  int holds = 0, releases = 0;
};

}  // namespace nightjar::testing
