#include "platform/linux/file_time_zone_source.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "platform/temporary_root.h"

namespace nightjar::platform::linux_adapter {
namespace {

namespace fs = std::filesystem;

const std::string kZoneInfo = "/usr/share/zoneinfo/";
// 2024-01-15 12:00:00 UTC: winter in both zones used here.
constexpr std::time_t kWinterNoon = 1705320000;

long libraryOffset() {
  std::tm local{};
  localtime_r(&kWinterNoon, &local);
  return local.tm_gmtoff;
}

class FileTimeZoneSourceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(fs::exists(kZoneInfo + "Asia/Tokyo")) << "tzdata is needed";
    fs::create_directory(root_ / "/etc");
    if (const char* tz = std::getenv("TZ"))
      savedTz_ = tz;
  }
  void TearDown() override {
    savedTz_ ? setenv("TZ", savedTz_->c_str(), 1) : unsetenv("TZ");
    tzset();
  }

  // Replaces <root>/etc/localtime at once, as a zone switch does: a symbolic
  // link to the zone, or a copy of it, renamed over the old file.
  void switchTo(const std::string& zone, bool asLink) {
    const std::string next = root_ / "/etc/localtime.next";
    if (asLink) {
      fs::create_symlink(kZoneInfo + zone, next);
    } else {
      fs::copy_file(kZoneInfo + zone, next);
    }
    fs::rename(next, root_ / "/etc/localtime");
  }

  testing::TemporaryRoot root_;
  std::optional<std::string> savedTz_;
};

// A missing file is UTC; a link names its zone, a copy does not; a copy with
// the same bytes in place of another is no change.
TEST_F(FileTimeZoneSourceTest, ZoneIsReadUnderTheRootAndTheLibraryFollowsSwitches) {
  auto source = makeFileTimeZoneSource(root_.path);
  EXPECT_EQ(std::string(std::getenv("TZ")), ":" + (root_ / "/etc/localtime"));
  EXPECT_EQ(source->current(), TimeZone{});
  EXPECT_EQ(libraryOffset(), 0);
  switchTo("Asia/Tokyo", /*asLink=*/true);
  const std::optional<TimeZone> tokyo = source->current();
  ASSERT_TRUE(tokyo.has_value());
  EXPECT_EQ(tokyo->name, "Asia/Tokyo");
  std::ifstream file(kZoneInfo + "Asia/Tokyo", std::ios::binary);
  EXPECT_EQ(tokyo->data, std::vector<std::uint8_t>(std::istreambuf_iterator<char>(file), {}));
  EXPECT_EQ(libraryOffset(), 9 * 3600);
  switchTo("America/New_York", /*asLink=*/false);
  EXPECT_EQ(source->current().value().name, "");  // a copy names no zone
  EXPECT_EQ(libraryOffset(), -5 * 3600);
  const std::optional<TimeZone> newYork = source->current();
  switchTo("America/New_York", /*asLink=*/false);  // another inode, same bytes
  EXPECT_EQ(source->current(), newYork);
  // Something else at the path is unreadable.
  fs::remove(root_ / "/etc/localtime");
  fs::create_directory(root_ / "/etc/localtime");
  EXPECT_EQ(source->current(), std::nullopt);
  fs::remove(root_ / "/etc/localtime");
  std::ofstream(root_ / "/etc/localtime") << std::string(2 << 20, 'x');  // far too big
  EXPECT_EQ(source->current(), std::nullopt);
}

}  // namespace
}  // namespace nightjar::platform::linux_adapter
