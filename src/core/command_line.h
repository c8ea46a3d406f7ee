// The daemon's command line: "dhiuvp:", read left to right; the first option
// other than -d decides what the process does.
#pragma once

#include <string>

namespace nightjar::core {

enum class Command { Run, Usage, InstallRights, RemoveRights, Version };

struct CommandLine {
  Command command = Command::Run;
  bool daemonise = false;
};

// Parses with getopt (which itself complains on stderr about unknown options
// or a missing argument). May be called more than once per process.
CommandLine parseCommandLine(int argc, char* argv[]);

// The usage text with `programName` (argv[0]) in its placeholder.
std::string usageText(const char* programName);
// "nightjard v3.7.3\n".
std::string versionText();

}  // namespace nightjar::core
