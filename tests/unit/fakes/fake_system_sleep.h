// A SystemSleep that records each request and answers it when the test says.
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <utility>

#include "platform/system_sleep.h"

namespace nightjar::testing {

class FakeSystemSleep final : public platform::SystemSleep {
 public:
  void sleepNow(Completion completion) override {
    ++requests;
    pending.push_back(std::move(completion));
    if (trace)
      trace("sleep");
  }

  // Answers the oldest request still waiting, as the power manager would later.
  void answer(int error) {
    if (pending.empty())
      return;
    Completion completion = std::move(pending.front());
    pending.pop_front();
    if (completion)
      completion(error);
  }

  int requests = 0;
  std::deque<Completion> pending;
  // Told of every request, so that a test can see it among other calls.
  std::function<void(const std::string&)> trace;
};

}  // namespace nightjar::testing
