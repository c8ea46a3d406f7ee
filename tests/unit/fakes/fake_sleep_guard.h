// A SleepGuard that records its holds and releases.
#pragma once

#include "platform/sleep_guard.h"

namespace nightjar::testing {

class FakeSleepGuard final : public platform::SleepGuard {
 public:
  void hold() override { ++holds; }
  void release() override { ++releases; }
  bool held() const { return holds > releases; }

  int holds = 0;
  int releases = 0;
};

}  // namespace nightjar::testing
