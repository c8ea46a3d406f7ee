#include "platform/linux/spawn_command_runner.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <optional>

#include "platform/private_bus.h"
#include "platform/temporary_root.h"

namespace nightjar::platform::linux_adapter {
namespace {

using ::testing::_;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Outcome = CommandRunner::Outcome;

constexpr char kBin[] = "/usr/local/nightjar/bin";

// Tools under a temporary root that append their arguments to calls.log.
class SpawnCommandRunnerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(root_.path.empty());
    std::filesystem::create_directories(root_ / kBin);
    loop_ = runloop::RunLoop::create();
    ASSERT_NE(loop_, nullptr);
    runner_ = makeSpawnCommandRunner(*loop_, root_.path);
    ASSERT_NE(runner_, nullptr);
  }

  // A recording tool named `name` whose script ends with `tail`.
  void addTool(const std::string& name, const std::string& tail = "") {
    const std::string path = root_ / (std::string(kBin) + "/" + name);
    std::ofstream(path) << "#!/bin/sh\necho \"$0 $*\" >> " << root_ / "/calls.log"
                        << "\n"
                        << tail << "\n";
    chmod(path.c_str(), 0755);
  }
  std::vector<std::string> calls() {
    std::ifstream log(root_ / "/calls.log");
    std::vector<std::string> lines;
    for (std::string line; std::getline(log, line);)
      lines.push_back(line);
    return lines;
  }
  std::optional<Outcome> run(const std::string& name, std::vector<std::string> arguments) {
    std::optional<Outcome> outcome;
    runner_->run(std::string(kBin) + "/" + name, arguments, [&](Outcome o) { outcome = o; });
    EXPECT_FALSE(outcome) << "the outcome is known only once the tool has exited";
    nightjar::testing::runUntil(loop_->event(), [&] { return outcome.has_value(); });
    return outcome;
  }

  nightjar::testing::TemporaryRoot root_;
  std::unique_ptr<runloop::RunLoop> loop_;
  std::unique_ptr<CommandRunner> runner_;
};

TEST_F(SpawnCommandRunnerTest, RunsTheToolUnderTheRootWithoutAShellAndReportsHowItEnded) {
  addTool("perch", "exit 3");
  addTool("killed", "kill -TERM $$");
  for (const auto& [name, status] : {std::pair<std::string, int>{"perch", 3},
                                     std::pair<std::string, int>{"killed", 128 + SIGTERM}}) {
    // An argument with shell syntax reaches the tool as one word, untouched.
    std::optional<Outcome> outcome = run(name, {"-s", "a b;true"});
    ASSERT_TRUE(outcome) << name;
    EXPECT_TRUE(outcome->started);
    EXPECT_EQ(outcome->status, status) << name;
  }
  EXPECT_THAT(calls(), ElementsAre(root_ / (std::string(kBin) + "/perch -s a b;true"), _));
  std::optional<Outcome> missing;
  runner_->run(std::string(kBin) + "/missing", {"-l"}, [&](Outcome o) { missing = o; });
  ASSERT_TRUE(missing);  // at once
  EXPECT_FALSE(missing->started);
  EXPECT_EQ(missing->status, ENOENT);
  // A runner that goes while its tool still runs leaves the tool be.
  addTool("slow", "sleep 0.2; echo finished >> " + root_ / "/calls.log");
  bool called = false;
  runner_->run(std::string(kBin) + "/slow", {}, [&](Outcome) { called = true; });
  runner_.reset();
  nightjar::testing::runUntil(
      loop_->event(), [&] { return calls().size() == 4; }, std::chrono::seconds(5));
  EXPECT_THAT(calls(), ElementsAre(_, _, HasSubstr("slow"), "finished"));
  EXPECT_FALSE(called);
}

// The daemon blocks SIGCHLD, ignores SIGPIPE and holds sockets and locks: a
// tool gets none of that.
TEST_F(SpawnCommandRunnerTest, ToolsStartWithACleanSignalStateAndNoInheritedDescriptors) {
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);  // without close-on-exec, on purpose
  const sighandler_t previous = signal(SIGPIPE, SIG_IGN);
  const std::string log = root_ / "/calls.log";
  // The shell may hold the same descriptor number for itself: it leaked only if it is our pipe.
  struct stat pipeStat {};
  ASSERT_EQ(fstat(pipeFds[1], &pipeStat), 0);
  addTool("probe", "grep -E '^Sig(Blk|Ign)' /proc/$$/status >> " + log +
                       "\n[ \"$(readlink /proc/$$/fd/" + std::to_string(pipeFds[1]) +
                       ")\" = 'pipe:[" + std::to_string(pipeStat.st_ino) +
                       "]' ] && echo leaked >> " + log);
  EXPECT_TRUE(run("probe", {}));
  signal(SIGPIPE, previous);
  close(pipeFds[0]);
  close(pipeFds[1]);
  const std::vector<std::string> lines = calls();
  ASSERT_EQ(lines.size(), 3u) << "a descriptor leaked, or the probe failed";
  EXPECT_EQ(lines[1], "SigBlk:\t0000000000000000");
  // glibc's posix_spawn leaves its own two internal signals (32 and 33)
  // ignored in every child; the standard ones must all be back to default.
  ASSERT_EQ(lines[2].rfind("SigIgn:\t", 0), 0u);
  EXPECT_EQ(std::stoull(lines[2].substr(8), nullptr, 16) & 0x7fffffffu, 0u) << lines[2];
}

}  // namespace
}  // namespace nightjar::platform::linux_adapter
