// Keeps the system from idle sleep while the daemon performs an event.
#pragma once

namespace nightjar::platform {

// Idle sleep only: a sleep that the user or another program asks for is never
// held back. Destroying the guard releases a hold.
class SleepGuard {
 public:
  virtual ~SleepGuard() = default;
  SleepGuard() = default;
  SleepGuard(const SleepGuard&) = delete;
  SleepGuard& operator=(const SleepGuard&) = delete;

  // Starts refusing idle sleep; holding twice is holding once. Best effort: the
  // power manager may take a moment to learn of the hold, and a hold that it
  // refuses is dropped. Run-loop thread only.
  virtual void hold() = 0;
  // Ends the hold, or cancels one still under way; harmless without a hold.
  // Run-loop thread only.
  virtual void release() = 0;
};

}  // namespace nightjar::platform
