#include "core/command_line.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace nightjar::core {
namespace {

CommandLine parse(std::initializer_list<const char*> words) {
  std::vector<std::string> storage(words.begin(), words.end());
  std::vector<char*> argv;
  for (auto& word : storage)
    argv.push_back(word.data());
  argv.push_back(nullptr);
  opterr = 0;  // keep getopt's own complaints out of the test output
  return parseCommandLine(static_cast<int>(storage.size()), argv.data());
}

TEST(CommandLine, FirstOptionOtherThanDaemoniseDecides) {
  struct Case {
    std::initializer_list<const char*> words;
    Command command;
    bool daemonise;
  };
  const Case cases[] = {
      {{"nightjard"}, Command::Run, false},
      {{"nightjard", "-d"}, Command::Run, true},
      {{"nightjard", "-v"}, Command::Version, false},
      {{"nightjard", "-d", "-v"}, Command::Version, true},
      {{"nightjard", "-v", "-d"}, Command::Version, false},
      {{"nightjard", "-h", "-v"}, Command::Usage, false},
      {{"nightjard", "-i", "-u"}, Command::InstallRights, false},
      {{"nightjard", "-u"}, Command::RemoveRights, false},
      {{"nightjard", "-p", "/x", "-v"}, Command::Usage, false},
      {{"nightjard", "-p"}, Command::Usage, false},
      {{"nightjard", "-z"}, Command::Usage, false},
      {{"nightjard", "-dv"}, Command::Version, true},
      // Parsing stops at the first word that is not an option.
      {{"nightjard", "foo", "-v"}, Command::Run, false},
      {{"nightjard", "-d", "foo", "-h"}, Command::Run, true},
      {{"nightjard", "--", "-v"}, Command::Run, false},
  };
  for (const Case& c : cases) {
    CommandLine line = parse(c.words);
    std::string label;
    for (const char* w : c.words)
      label += std::string(w) + " ";
    EXPECT_EQ(line.command, c.command) << label;
    EXPECT_EQ(line.daemonise, c.daemonise) << label;
  }
}

TEST(CommandLine, TextsCarryTheProgramNameAndVersion) {
  EXPECT_EQ(versionText(), "nightjard v3.7.3\n");
  const std::string usage = usageText("/opt/x/nj");
  EXPECT_EQ(usage.rfind("Usage: /opt/x/nj [-dhiuv] [-p <absolute path>]\n", 0), 0u);
  EXPECT_NE(usage.find("        -u   Uninstall security policy rights and exit.\n"),
            std::string::npos);
  EXPECT_EQ(usage.back(), '\n');

  // A long program name does not cut the text short.
  const std::string longName(4000, 'n');
  const std::string longUsage = usageText(longName.c_str());
  EXPECT_EQ(longUsage.size(), usage.size() - std::string("/opt/x/nj").size() + longName.size());
  EXPECT_EQ(longUsage.substr(longUsage.size() - 40), usage.substr(usage.size() - 40));
}

}  // namespace
}  // namespace nightjar::core
