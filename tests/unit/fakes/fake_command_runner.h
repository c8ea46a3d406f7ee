// A CommandRunner that records each command and ends it when the test says.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/command_runner.h"

namespace nightjar::testing {

class FakeCommandRunner final : public platform::CommandRunner {
 public:
  struct Command {
    std::string path;
    std::vector<std::string> arguments;
    friend bool operator==(const Command&, const Command&) = default;
  };

  void run(const std::string& path, const std::vector<std::string>& arguments,
           Completion completion) override {
    commands.push_back({path, arguments});
    std::string line = path;
    for (const std::string& argument : arguments)
      line += " " + argument;
    if (trace)
      trace(line);
    if (spawnError && completion)
      completion({.started = false, .status = *spawnError});
    else if (!spawnError)
      running.push_back(std::move(completion));
  }
  // Ends the oldest command still running with exit status `status`.
  void exit(int status) {
    if (running.empty())
      return;
    Completion completion = std::move(running.front());
    running.pop_front();
    if (completion)
      completion({.started = true, .status = status});
  }

  std::vector<Command> commands;
  std::deque<Completion> running;
  std::optional<int> spawnError;  // set: each command completes at once, not started
  std::function<void(const std::string&)> trace;
};

}  // namespace nightjar::testing
