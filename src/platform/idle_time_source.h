// How long the user at the console has left keyboard and mouse alone. Reading
// never waits: the source keeps its last answer and refreshes it in the
// background, telling its listener when a fresh answer is in.
#pragma once

#include <functional>

namespace nightjar::platform {

class IdleTimeSource {
 public:
  using Listener = std::function<void()>;

  virtual ~IdleTimeSource() = default;
  IdleTimeSource() = default;
  IdleTimeSource(const IdleTimeSource&) = delete;
  IdleTimeSource& operator=(const IdleTimeSource&) = delete;

  // Seconds since the last user input, fraction included, by the last answer
  // counted on to now; 0 while the user is active or it is unknown. The
  // answer may be stale: a user who came back since is seen only after a
  // refresh.
  virtual double idleTime() = 0;
  // Asks for a fresh answer without waiting for it. True when the listener
  // will be called from the run loop once the answer is in (a failed one reads
  // as 0), never from within this call; a request made while one is under way
  // shares its answer. False when no answer can be asked for: the current one
  // stands.
  virtual bool refresh() = 0;
  // The one listener; an empty one removes it.
  virtual void setListener(Listener listener) = 0;
};

}  // namespace nightjar::platform
