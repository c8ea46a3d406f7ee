#include "core/command_line.h"

#include <unistd.h>

#include <cstdio>

#include "wire/version.h"

namespace nightjar::core {

CommandLine parseCommandLine(int argc, char* argv[]) {
  CommandLine line;
  optind = 0;  // full reset, so that a second parse starts afresh
  int option;
  // "+": stop at the first word that is not an option, as POSIX getopt does;
  // glibc would otherwise move later options forward and obey them.
  while ((option = getopt(argc, argv, "+dhiuvp:")) != -1) {
    switch (option) {
      case 'd':
        line.daemonise = true;
        continue;
      case 'i':
        line.command = Command::InstallRights;
        return line;
      case 'u':
        line.command = Command::RemoveRights;
        return line;
      case 'v':
        line.command = Command::Version;
        return line;
      default:  // -h, -p (which sets nothing) and every unknown option
        line.command = Command::Usage;
        return line;
    }
  }
  return line;
}

std::string usageText(const char* programName) {
  static constexpr char kUsage[] =
      "Usage: %s [-dhiuv] [-p <absolute path>]\n"
      "        -d   Daemonise on launch (for Mac OS X 10.3).\n"
      "        -h   Show this help message and exit.\n"
      "        -i   Install default security policy rights and exit.\n"
      "        -u   Uninstall security policy rights and exit.\n"
      "        -v   Show version details and exit.\n";
  const char* name = programName ? programName : "";
  // Sized from a first measuring pass: argv[0] may be of any length.
  const int length = std::snprintf(nullptr, 0, kUsage, name);
  if (length < 0)
    return {};
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  std::snprintf(text.data(), text.size(), kUsage, name);
  text.pop_back();
  return text;
}

std::string versionText() {
  return std::string(wire::versionText()) + '\n';
}

}  // namespace nightjar::core
