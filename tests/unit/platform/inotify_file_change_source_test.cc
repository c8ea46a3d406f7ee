#include "platform/linux/inotify_file_change_source.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>

#include "platform/private_bus.h"
#include "platform/temporary_root.h"

namespace nightjar::platform::linux_adapter {
namespace {

using ::testing::ElementsAre;
using WatchId = FileChangeSource::WatchId;

class InotifyFileChangeSourceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* folder : {"/etc", "/a", "/b"})
      makeFolder(folder);
    loop_ = runloop::RunLoop::create();
    source_ = makeInotifyFileChangeSource(*loop_, root_.path);
    ASSERT_NE(source_, nullptr);
    source_->setChangeHandler([this](WatchId id) { changes_.push_back(id); });
  }

  WatchId watch(const char* path) { return source_->add(path).value_or(-1); }
  void makeFolder(const std::string& path) { ASSERT_EQ(mkdir((root_ / path).c_str(), 0755), 0); }
  bool waitForChanges(std::size_t count) {
    return testing::runUntil(loop_->event(), [&] { return changes_.size() >= count; });
  }

  testing::TemporaryRoot root_;
  std::unique_ptr<runloop::RunLoop> loop_;
  std::unique_ptr<FileChangeSource> source_;
  std::vector<WatchId> changes_;
};

TEST_F(InotifyFileChangeSourceTest, ReplacingAnEntryOfAWatchedFolderIsReported) {
  // The way a zone switch arrives: a new file renamed over /etc/localtime.
  const WatchId etc = watch("/etc/");
  ASSERT_GE(etc, 0);
  std::fclose(std::fopen((root_ / "/etc/localtime.new").c_str(), "w"));
  ASSERT_EQ(std::rename((root_ / "/etc/localtime.new").c_str(), (root_ / "/etc/localtime").c_str()),
            0);
  // Created, closed after writing, moved out under one name and in under the other.
  ASSERT_TRUE(waitForChanges(4));
  EXPECT_THAT(changes_, ElementsAre(etc, etc, etc, etc));
}

TEST_F(InotifyFileChangeSourceTest, OnlyPathsUnderTheRootASecondAddNeedsASecondRemove) {
  EXPECT_EQ(source_->add("/missing"), std::nullopt);
  EXPECT_EQ(source_->add("/tmp"), std::nullopt);  // exists, but not under the root
  const WatchId a = watch("/a");
  EXPECT_EQ(watch("/a/"), a);  // the same folder under another spelling
  const WatchId b = watch("/b");
  source_->remove(a);
  makeFolder("/a/1");
  ASSERT_TRUE(waitForChanges(1));
  // After the last remove only /b is heard: were /a still watched, its change
  // would arrive first.
  source_->remove(a);
  makeFolder("/a/2");
  makeFolder("/b/3");
  ASSERT_TRUE(waitForChanges(2));
  EXPECT_THAT(changes_, ElementsAre(a, b));
  // A watched folder that goes away is a change, and ends its watch.
  makeFolder("/c");
  const WatchId c = watch("/c");
  ASSERT_EQ(rmdir((root_ / "/c").c_str()), 0);
  ASSERT_TRUE(waitForChanges(3));
  EXPECT_THAT(changes_, ElementsAre(a, b, c));
  source_->remove(c);  // already ended by the system: harmless
}

}  // namespace
}  // namespace nightjar::platform::linux_adapter
