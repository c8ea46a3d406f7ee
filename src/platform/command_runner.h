// Starts the installation's own tools for the actions that are not done in
// the daemon (shut down, restart, log out, switch to the login screen).
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace nightjar::platform {

class CommandRunner {
 public:
  virtual ~CommandRunner() = default;
  CommandRunner() = default;
  CommandRunner(const CommandRunner&) = delete;
  CommandRunner& operator=(const CommandRunner&) = delete;

  // How a command ended: `status` is the exit status when it exited, or a
  // positive error number when it could not be started (`started` false).
  // A command killed by a signal reports 128 + the signal number.
  struct Outcome {
    bool started = false;
    int status = 0;
  };
  using Completion = std::function<void(Outcome outcome)>;

  // Starts `path` with `arguments` (argv[1] on), without a shell and without
  // waiting for it; the child is reaped from the run loop, and `completion`
  // (may be empty) is called then, or at once when it could not be started.
  // `path` is the tool's absolute path as installed; the adapter resolves it
  // under the daemon's root. Run-loop thread only.
  virtual void run(const std::string& path, const std::vector<std::string>& arguments,
                   Completion completion) = 0;
};

}  // namespace nightjar::platform
