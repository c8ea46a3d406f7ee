#include "monitors/file_watcher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_file_change_source.h"
#include "fakes/notification_recorder.h"

namespace nightjar::monitors {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class FileWatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto source = std::make_unique<testing::FakeFileChangeSource>();
    source_ = source.get();
    ASSERT_TRUE(fileWatcherCreate(std::move(source)));
    watcher_ = fileWatcherGet();
    recorder_.emplace(watcher_);
  }
  void TearDown() override {
    recorder_.reset();
    fileWatcherDestroy();
  }

  testing::FakeFileChangeSource* source_ = nullptr;
  FileWatcher* watcher_ = nullptr;
  std::optional<testing::NotificationRecorder> recorder_;
};

TEST_F(FileWatcherTest, ChangesArePostedUnderTheirPathInOrder) {
  fileWatcherAdd(watcher_, "/a");
  fileWatcherAdd(watcher_, "/etc/");
  source_->change("/etc/");
  source_->change("/a");
  source_->change("/etc/");
  EXPECT_THAT(recorder_->names(), ElementsAre("/etc/", "/a", "/etc/"));
  EXPECT_EQ(recorder_->posts[0].object, watcher_);
  EXPECT_TRUE(recorder_->posts[0].userInfo.isNone());
}

TEST_F(FileWatcherTest, WatchIsReferenceCounted) {
  fileWatcherAdd(watcher_, "/etc/");
  fileWatcherAdd(watcher_, "/etc/");
  EXPECT_THAT(source_->adds, ElementsAre("/etc/"));
  fileWatcherRemove(watcher_, "/etc/");
  EXPECT_THAT(source_->removes, IsEmpty());
  source_->change("/etc/");

  fileWatcherRemove(watcher_, "/etc/");
  fileWatcherRemove(watcher_, "/etc/");  // no watch left: nothing
  EXPECT_THAT(source_->removes, ElementsAre(source_->ids.at("/etc/")));
  source_->change("/etc/");
  EXPECT_EQ(recorder_->names().size(), 1u);
}

TEST_F(FileWatcherTest, UnwatchablePathIsLeftOutAndTriedAgainLater) {
  source_->unwatchable.insert("/missing");
  fileWatcherAdd(watcher_, "/missing");
  fileWatcherRemove(watcher_, "/missing");
  EXPECT_THAT(source_->removes, IsEmpty());
  fileWatcherAdd(watcher_, "/missing");
  EXPECT_THAT(source_->adds, ElementsAre("/missing", "/missing"));
}

TEST_F(FileWatcherTest, PathsNamingOneFileAreEachPostedUnlessDroppedMeanwhile) {
  fileWatcherAdd(watcher_, "/etc");
  source_->sameFile["/etc/"] = "/etc";
  fileWatcherAdd(watcher_, "/etc/");
  source_->change("/etc");
  EXPECT_THAT(recorder_->names(), ElementsAre("/etc", "/etc/"));

  // An observer of the first path drops the second before its turn.
  int dropper = 0;
  runloop::localCenter().addObserver(
      &dropper, [&](auto...) { fileWatcherRemove(watcher_, "/etc/"); }, "/etc", watcher_);
  source_->change("/etc");
  runloop::localCenter().removeObserver(&dropper);
  EXPECT_THAT(recorder_->names(), ElementsAre("/etc", "/etc/", "/etc"));
}

TEST_F(FileWatcherTest, SlotHoldsOneWatcherUntilDestroyed) {
  EXPECT_TRUE(fileWatcherCreate(std::make_unique<testing::FakeFileChangeSource>()));
  EXPECT_EQ(fileWatcherGet(), watcher_);
  fileWatcherDestroy();
  EXPECT_EQ(fileWatcherGet(), nullptr);
  EXPECT_FALSE(fileWatcherCreate(nullptr));
  fileWatcherAdd(nullptr, "/etc/");
  fileWatcherRemove(nullptr, "/etc/");
}

}  // namespace
}  // namespace nightjar::monitors
