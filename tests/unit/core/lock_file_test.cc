#include "core/lock_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fakes/recording_log_sink.h"
#include "platform/temporary_root.h"

namespace nightjar::core {
namespace {

TEST(LockFileTest, AdvertiseWritesBarePidWithMode0644AndKeepsUmaskOrLogsWhy) {
  testing::RecordingLogSink sink;
  const testing::TemporaryRoot dir;
  const std::string path = dir / "/nightjard.pid";
  const mode_t before = umask(0077);
  ASSERT_TRUE(advertise(path));
  EXPECT_EQ(umask(before), 0077u);
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  testing::writeFile(path, "99999999 stale content that is longer\n");
  ASSERT_TRUE(advertise(path));
  EXPECT_EQ(testing::readFile(path), std::to_string(getpid()));
  stopAdvertising(path);
  EXPECT_FALSE(std::filesystem::exists(path));
  stopAdvertising(path);  // gone already
  testing::writeFile(dir / "/file", "");
  EXPECT_FALSE(advertise(dir / "/file/nightjard.pid"));
  ASSERT_EQ(sink.lines.size(), 2u);
  EXPECT_EQ(sink.lines[0],
            std::make_pair(
                LOG_ERR, "stopAdvertising: Lock file removal error; path: " + path + "; error: 2"));
  EXPECT_EQ(sink.lines[1].second, "advertise: Lock file creation error; path: " + dir.path +
                                      "/file/nightjard.pid; error: 20");
}

}  // namespace
}  // namespace nightjar::core
