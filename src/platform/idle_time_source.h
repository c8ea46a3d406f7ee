// How long the user at the console has left keyboard and mouse alone.
#pragma once

#include <cstdint>

namespace nightjar::platform {

class IdleTimeSource {
 public:
  virtual ~IdleTimeSource() = default;
  IdleTimeSource() = default;
  IdleTimeSource(const IdleTimeSource&) = delete;
  IdleTimeSource& operator=(const IdleTimeSource&) = delete;

  // Whole seconds since the last user input; 0 when unknown. Never blocks for
  // long. Run-loop thread only.
  virtual std::uint32_t idleSeconds() = 0;
};

}  // namespace nightjar::platform
