#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/notification_recorder.h"
#include "fakes/port_fakes.h"
#include "fakes/recording_log_sink.h"
#include "model/model_testing.h"
#include "monitors/file_watcher.h"
#include "monitors/monitor_decisions.h"
#include "monitors/system_monitor.h"

namespace nightjar::monitors {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::namedZone;
using namespace model::testing;

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

// Paths naming one file are each posted, unless an observer drops one
// meanwhile.
TEST_F(FileWatcherTest, ChangesArePostedUnderEachPathWatched) {
  fileWatcherAdd(watcher_, "/a");
  fileWatcherAdd(watcher_, "/etc");
  source_->sameFile["/etc/"] = "/etc";
  fileWatcherAdd(watcher_, "/etc/");
  source_->change("/etc");
  source_->change("/a");
  EXPECT_THAT(recorder_->names(), ElementsAre("/etc", "/etc/", "/a"));
  EXPECT_EQ(recorder_->posts[0].object, watcher_);
  EXPECT_TRUE(recorder_->posts[0].userInfo.isNone());
  int dropper = 0;
  runloop::localCenter().addObserver(
      &dropper, [&](auto...) { fileWatcherRemove(watcher_, "/etc/"); }, "/etc", watcher_);
  source_->change("/etc");
  runloop::localCenter().removeObserver(&dropper);
  EXPECT_EQ(recorder_->names().back(), "/etc");
  EXPECT_EQ(recorder_->posts.size(), 4u);
}

// An unwatchable path is left out and tried again when added again.
TEST_F(FileWatcherTest, WatchIsReferenceCounted) {
  fileWatcherAdd(watcher_, "/etc/");
  fileWatcherAdd(watcher_, "/etc/");
  fileWatcherRemove(watcher_, "/etc/");
  EXPECT_THAT(source_->removes, IsEmpty());
  fileWatcherRemove(watcher_, "/etc/");
  fileWatcherRemove(watcher_, "/etc/");  // no watch left: nothing
  EXPECT_THAT(source_->removes, ElementsAre(source_->ids.at("/etc/")));
  source_->unwatchable.insert("/missing");
  fileWatcherAdd(watcher_, "/missing");
  fileWatcherRemove(watcher_, "/missing");
  fileWatcherAdd(watcher_, "/missing");
  EXPECT_THAT(source_->adds, ElementsAre("/etc/", "/missing", "/missing"));
  EXPECT_EQ(source_->removes.size(), 1u);
  EXPECT_TRUE(fileWatcherCreate(std::make_unique<testing::FakeFileChangeSource>()));
  EXPECT_EQ(fileWatcherGet(), watcher_);  // one watcher until destroyed
  fileWatcherDestroy();
  EXPECT_EQ(fileWatcherGet(), nullptr);
  EXPECT_FALSE(fileWatcherCreate(nullptr));
  fileWatcherAdd(nullptr, "/etc/");
  fileWatcherRemove(nullptr, "/etc/");
}

// The system monitor over the file watcher's fixture; the recorder follows the
// monitor once it is created.
class SystemMonitorTest : public FileWatcherTest {
 protected:
  void TearDown() override {
    recorder_.reset();
    systemMonitorDestroy(watcher_);
    FileWatcherTest::TearDown();
  }

  // Builds the monitor over a fake of every port; the zone reads as Paris.
  void createWithFakes(FileWatcher* watcher) {
    SystemMonitorPorts ports;
    ports.consoleUser = std::make_unique<testing::FakeConsoleUserSource>();
    ports.power = std::make_unique<testing::FakePowerSource>();
    ports.sleepGuard = std::make_unique<testing::FakeSleepGuard>();
    ports.timeZone = std::make_unique<testing::FakeTimeZoneSource>();
    console_ = static_cast<testing::FakeConsoleUserSource*>(ports.consoleUser.get());
    power_ = static_cast<testing::FakePowerSource*>(ports.power.get());
    guard_ = static_cast<testing::FakeSleepGuard*>(ports.sleepGuard.get());
    zone_ = static_cast<testing::FakeTimeZoneSource*>(ports.timeZone.get());
    zone_->zone = namedZone("Europe/Paris");
    create(watcher, std::move(ports));
  }
  void create(FileWatcher* watcher, SystemMonitorPorts ports) {
    ASSERT_TRUE(systemMonitorCreate(watcher, std::move(ports)));
    monitor_ = systemMonitorGet();
    recorder_.emplace(monitor_);
  }

  testing::FakeConsoleUserSource* console_ = nullptr;
  testing::FakePowerSource* power_ = nullptr;
  testing::FakeSleepGuard* guard_ = nullptr;
  testing::FakeTimeZoneSource* zone_ = nullptr;
  SystemMonitor* monitor_ = nullptr;
};

TEST_F(SystemMonitorTest, ConsoleAndPowerReportsArePosted) {
  EXPECT_FALSE(isConsoleUserActive());  // no monitor
  createWithFakes(watcher_);
  console_->report(testing::userSession("alice", 1000, 100));
  console_->report(testing::userSession("", 1001, std::nullopt));  // the same user again counts
  console_->report(testing::greeterSession());
  console_->report(platform::ConsoleSession{});
  power_->sleep();
  power_->wake();
  EXPECT_THAT(recorder_->names(),
              ElementsAre("externalevents.login", "externalevents.login", "externalevents.logout",
                          "externalevents.logout", "externalevents.sleep", "externalevents.wake"));
  EXPECT_EQ(recorder_->posts[5].object, monitor_);
  EXPECT_EQ(recorder_->posts[0].userInfo,
            Dict({{"username", S("alice")}, {"uid", I(1000)}, {"gid", I(100)}}));
  EXPECT_EQ(recorder_->posts[1].userInfo, Dict({{"uid", I(1001)}}));  // unknowns left out
  EXPECT_TRUE(recorder_->posts[2].userInfo.isNone());
  EXPECT_FALSE(isConsoleUserActive());
  console_->session = testing::userSession("alice", 1000, 100);
  EXPECT_TRUE(isConsoleUserActive());
  console_->session = testing::greeterSession();
  EXPECT_FALSE(isConsoleUserActive());
}

TEST_F(SystemMonitorTest, IdleSleepIsRefusedWhileActivityIsAboveZero) {
  testing::RecordingLogSink log;
  createWithFakes(watcher_);
  systemMonitorRaiseActivity(monitor_);
  systemMonitorRaiseActivity(monitor_);  // nested: already refusing
  systemMonitorLowerActivity(monitor_);
  EXPECT_TRUE(guard_->held());
  systemMonitorLowerActivity(monitor_);
  systemMonitorRaiseActivity(monitor_);  // each new performance refuses again
  EXPECT_EQ(guard_->holds, 2);
  EXPECT_EQ(guard_->releases, 1);
  ASSERT_EQ(log.lines.size(), 2u);
  EXPECT_EQ(log.lines[1], std::make_pair(LOG_INFO, std::string("Dening idle sleep request")));
  EXPECT_THAT(recorder_->posts, IsEmpty());
  // A sleep already decided is never refused.
  EXPECT_EQ(answerPowerMessage(PowerMessage::SystemWillSleep, 1), PowerAnswer::Allow);
}

// A zone is followed only with a watcher, a zone source and a readable zone.
TEST_F(SystemMonitorTest, WithoutFacilitiesNothingIsFollowedPostedOrRefused) {
  testing::RecordingLogSink log;
  createWithFakes(nullptr);
  EXPECT_EQ(zone_->reads, 0);
  systemMonitorDestroy(nullptr);
  SystemMonitorPorts ports;
  ports.timeZone = std::make_unique<testing::FakeTimeZoneSource>();  // unreadable
  create(watcher_, std::move(ports));
  systemMonitorDestroy(nullptr);
  create(watcher_, {});
  systemMonitorRaiseActivity(monitor_);
  systemMonitorLowerActivity(monitor_);
  EXPECT_FALSE(isConsoleUserActive());
  EXPECT_THAT(log.lines, IsEmpty());
  EXPECT_THAT(source_->adds, IsEmpty());
  systemMonitorRaiseActivity(nullptr);
  EXPECT_TRUE(systemMonitorCreate(watcher_, {}));  // exists already: kept
  EXPECT_EQ(systemMonitorGet(), monitor_);
}

// An unreadable zone is no change, and the held zone stays; destroy drops the
// watch only when given the watcher.
TEST_F(SystemMonitorTest, OnlyARealZoneChangeIsPostedUntilTheWatchIsDropped) {
  createWithFakes(watcher_);
  EXPECT_THAT(source_->adds, ElementsAre("/etc/"));
  source_->change("/etc/");  // say, a new entry in /etc/
  zone_->zone.reset();
  source_->change("/etc/");
  zone_->zone = namedZone("Europe/Paris");
  source_->change("/etc/");
  EXPECT_THAT(recorder_->posts, IsEmpty());
  zone_->zone = namedZone("Asia/Tokyo");
  source_->change("/etc/");
  source_->change("/etc/");
  zone_->zone->data.push_back(0);  // same name, new rules: a tzdata update
  source_->change("/etc/");
  EXPECT_THAT(recorder_->names(),
              ElementsAre("externalevents.timezone", "externalevents.timezone"));
  systemMonitorDestroy(nullptr);
  EXPECT_EQ(systemMonitorGet(), nullptr);
  source_->change("/etc/");   // the watch stays; the gone monitor hears nothing
  createWithFakes(watcher_);  // the watch is now referenced twice
  systemMonitorDestroy(watcher_);
  systemMonitorDestroy(watcher_);  // absent: nothing
  EXPECT_THAT(source_->removes, IsEmpty());
  fileWatcherRemove(watcher_, "/etc/");  // the first monitor's was the last
  EXPECT_EQ(source_->removes.size(), 1u);
}

}  // namespace
}  // namespace nightjar::monitors
