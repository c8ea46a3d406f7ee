// A ConsoleNotice that records what it was asked to show and when it closed.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/console_notice.h"

namespace nightjar::testing {

class FakeConsoleNotice final : public platform::ConsoleNotice {
 public:
  struct Shown {
    std::string header, message;
    double seconds = 0;
  };

  bool show(const std::string& header, const std::string& message, double seconds) override {
    shown.push_back({header, message, seconds});
    if (trace)
      trace(reachable ? "notice shown" : "notice unreachable");
    return open = reachable;
  }
  void close() override {
    ++closes;
    open = false;
    if (trace)
      trace("notice closed");
  }

  bool reachable = true;  // false: no desktop, show() answers false
  bool open = false;
  int closes = 0;
  std::vector<Shown> shown;
  std::function<void(const std::string&)> trace;
};

}  // namespace nightjar::testing
