// A SystemSleep that records each request and answers it when the test says.
#pragma once

#include <deque>
#include <functional>
#include <string>

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
  std::function<void(const std::string&)> trace;  // told of every request
};

}  // namespace nightjar::testing
