// A TerminalBroadcast that records every text it was asked to write.
#pragma once

#include <string>
#include <vector>

#include "platform/terminal_broadcast.h"

namespace nightjar::testing {

struct FakeTerminalBroadcast final : platform::TerminalBroadcast {
  void broadcast(const std::string& text) override { written.push_back(text); }
  std::vector<std::string> written;
};

}  // namespace nightjar::testing
