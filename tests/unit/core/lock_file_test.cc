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

class LockFileTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(mkdtemp(dir_.data()), nullptr); }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::string dir_ = "/tmp/nightjar-lock-XXXXXX";
};

TEST_F(LockFileTest, AdvertiseWritesBarePidWithMode0644AndKeepsUmaskOrLogsWhy) {
  testing::RecordingLogSink sink;
  const std::string path = dir_ + "/nightjard.pid";
  const mode_t before = umask(0077);
  ASSERT_TRUE(advertise(path));
  EXPECT_EQ(umask(before), 0077u);
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  std::ofstream(path) << "99999999 stale content that is longer\n";
  ASSERT_TRUE(advertise(path));
  std::ifstream in(path);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), std::to_string(getpid()));
  stopAdvertising(path);
  EXPECT_FALSE(std::filesystem::exists(path));
  stopAdvertising(path);  // gone already
  std::ofstream(dir_ + "/file") << "";
  EXPECT_FALSE(advertise(dir_ + "/file/nightjard.pid"));
  ASSERT_EQ(sink.lines.size(), 2u);
  EXPECT_EQ(sink.lines[0],
            std::make_pair(
                LOG_ERR, "stopAdvertising: Lock file removal error; path: " + path + "; error: 2"));
  EXPECT_EQ(sink.lines[1].second, "advertise: Lock file creation error; path: " + dir_ +
                                      "/file/nightjard.pid; error: 20");
}

}  // namespace
}  // namespace nightjar::core
