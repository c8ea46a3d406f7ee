// Text written to every logged-in terminal, as wall(1) does.
#pragma once

#include <string>

namespace nightjar::platform {

class TerminalBroadcast {
 public:
  virtual ~TerminalBroadcast() = default;
  TerminalBroadcast() = default;
  TerminalBroadcast(const TerminalBroadcast&) = delete;
  TerminalBroadcast& operator=(const TerminalBroadcast&) = delete;

  // Writes `text` as it is (line ends included) to the terminal of every
  // logged-in session, each terminal once. Never blocks: the terminals are
  // found and written later from the run loop, and a terminal that cannot take
  // the text at once is skipped. Nothing is reported back. Run-loop thread only.
  virtual void broadcast(const std::string& text) = 0;
};

}  // namespace nightjar::platform
