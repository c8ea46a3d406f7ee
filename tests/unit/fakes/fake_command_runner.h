// A CommandRunner that records each command and ends it when the test says.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <utility>
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
    if (trace) {
      std::string line = path;
      for (const std::string& argument : arguments)
        line += " " + argument;
      trace(line);
    }
    if (spawnError) {
      if (completion)
        completion({.started = false, .status = *spawnError});
      return;
    }
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
  // While set, commands cannot be started: each completes at once with it.
  std::optional<int> spawnError;
  std::function<void(const std::string&)> trace;
};

}  // namespace nightjar::testing
