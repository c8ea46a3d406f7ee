#include "core/command_line.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace nightjar::core {
namespace {

TEST(CommandLine, FirstOptionOtherThanDaemoniseDecidesAndTextsNameTheProgram) {
  struct Case {
    std::vector<std::string> words;
    Command command;
    bool daemonise;
  };
  const Case cases[] = {
      {{"nightjard"}, Command::Run, false},
      {{"nightjard", "-v"}, Command::Version, false},
      {{"nightjard", "-d", "-v"}, Command::Version, true},
      {{"nightjard", "-v", "-d"}, Command::Version, false},
      {{"nightjard", "-h", "-v"}, Command::Usage, false},
      {{"nightjard", "-i", "-u"}, Command::InstallRights, false},
      {{"nightjard", "-u"}, Command::RemoveRights, false},
      {{"nightjard", "-p"}, Command::Usage, false},  // -p and unknown options
      {{"nightjard", "-dv"}, Command::Version, true},
      {{"nightjard", "-d", "foo", "-h"}, Command::Run, true},  // stops at the first non-option
  };
  opterr = 0;  // keep getopt's own complaints out of the test output
  for (Case c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.words));
    std::vector<char*> argv;
    for (std::string& word : c.words)
      argv.push_back(word.data());
    argv.push_back(nullptr);
    const CommandLine line = parseCommandLine(static_cast<int>(c.words.size()), argv.data());
    EXPECT_EQ(line.command, c.command);
    EXPECT_EQ(line.daemonise, c.daemonise);
  }
  EXPECT_EQ(versionText(), "nightjard v3.7.3\n");
  const std::string usage = usageText("/opt/x/nj");
  EXPECT_EQ(usage.rfind("Usage: /opt/x/nj [-dhiuv] [-p <absolute path>]\n", 0), 0u);
  EXPECT_NE(usage.find("        -u   Uninstall security policy rights and exit.\n"),
            std::string::npos);
  EXPECT_EQ(usage.back(), '\n');
  // A long program name does not cut the text short.
  const std::string longName(4000, 'n');
  EXPECT_EQ(usageText(longName.c_str()), std::string(usage).replace(7, 9, longName));
}

}  // namespace
}  // namespace nightjar::core
