#include "core/lock_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "fakes/recording_log_sink.h"

namespace nightjar::core {
namespace {

namespace fs = std::filesystem;

class LockFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/nightjar-lock-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { fs::remove_all(dir_); }
  fs::path dir_;
};

TEST_F(LockFileTest, AdvertiseWritesBarePidWithMode0644AndKeepsUmask) {
  const fs::path path = dir_ / "nightjard.pid";
  std::ofstream(path) << "99999999 stale content that is longer\n";
  const mode_t before = umask(0077);
  ASSERT_TRUE(advertise(path.string()));
  std::ifstream in(path);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), std::to_string(getpid()));
  stopAdvertising(path.string());
  EXPECT_FALSE(fs::exists(path));
  ASSERT_TRUE(advertise(path.string()));
  EXPECT_EQ(umask(before), 0077u);
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
}

TEST_F(LockFileTest, FailuresAreLoggedWithTheOperationAndPath) {
  testing::RecordingLogSink sink;
  std::ofstream(dir_ / "file") << "";
  const std::string blocked = (dir_ / "file" / "nightjard.pid").string();
  EXPECT_FALSE(advertise(blocked));
  stopAdvertising((dir_ / "missing.pid").string());
  ASSERT_EQ(sink.lines.size(), 2u);
  EXPECT_EQ(sink.lines[0].first, LOG_ERR);
  EXPECT_EQ(sink.lines[0].second,
            "advertise: Lock file creation error; path: " + blocked + "; error: 20");
  EXPECT_EQ(sink.lines[1].second, "stopAdvertising: Lock file removal error; path: " +
                                      (dir_ / "missing.pid").string() + "; error: 2");
}

}  // namespace
}  // namespace nightjar::core
