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
    if (savedTz_) {
      setenv("TZ", savedTz_->c_str(), 1);
    } else {
      unsetenv("TZ");
    }
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

TEST_F(FileTimeZoneSourceTest, ZoneIsReadUnderTheRootAndTheLibraryFollowsSwitches) {
  switchTo("Asia/Tokyo", /*asLink=*/true);
  auto source = makeFileTimeZoneSource(root_.path);
  EXPECT_EQ(std::string(std::getenv("TZ")), ":" + (root_ / "/etc/localtime"));
  const std::optional<TimeZone> tokyo = source->current();
  ASSERT_TRUE(tokyo.has_value());
  EXPECT_EQ(tokyo->name, "Asia/Tokyo");
  std::ifstream file(kZoneInfo + "Asia/Tokyo", std::ios::binary);
  EXPECT_EQ(tokyo->data, std::vector<std::uint8_t>(std::istreambuf_iterator<char>(file), {}));
  EXPECT_EQ(libraryOffset(), 9 * 3600);

  switchTo("America/New_York", /*asLink=*/true);
  const std::optional<TimeZone> newYork = source->current();
  ASSERT_TRUE(newYork.has_value());
  EXPECT_NE(tokyo, newYork);
  EXPECT_EQ(newYork->name, "America/New_York");
  EXPECT_EQ(libraryOffset(), -5 * 3600);
}

TEST_F(FileTimeZoneSourceTest, MissingFileIsUtcAndItsArrivalIsAChangeButNotItsCopy) {
  auto source = makeFileTimeZoneSource(root_.path);
  const std::optional<TimeZone> missing = source->current();
  EXPECT_EQ(missing, TimeZone{});
  EXPECT_EQ(libraryOffset(), 0);

  switchTo("Asia/Tokyo", /*asLink=*/false);
  const std::optional<TimeZone> tokyo = source->current();
  EXPECT_NE(tokyo, missing);
  EXPECT_EQ(libraryOffset(), 9 * 3600);
  switchTo("Asia/Tokyo", /*asLink=*/false);  // another inode, same bytes
  EXPECT_EQ(source->current(), tokyo);
}

TEST_F(FileTimeZoneSourceTest, SomethingElseAtThePathIsUnreadable) {
  auto source = makeFileTimeZoneSource(root_.path);
  fs::create_directory(root_ / "/etc/localtime");
  EXPECT_EQ(source->current(), std::nullopt);
  fs::remove(root_ / "/etc/localtime");
  std::ofstream(root_ / "/etc/localtime") << std::string(2 << 20, 'x');  // far too big
  EXPECT_EQ(source->current(), std::nullopt);
}

}  // namespace
}  // namespace nightjar::platform::linux_adapter
