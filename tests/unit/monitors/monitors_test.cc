#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_console_user_source.h"
#include "fakes/fake_file_change_source.h"
#include "fakes/fake_power_source.h"
#include "fakes/fake_sleep_guard.h"
#include "fakes/fake_time_zone_source.h"
#include "fakes/notification_recorder.h"
#include "fakes/recording_log_sink.h"
#include "monitors/file_watcher.h"
#include "monitors/monitor_decisions.h"
#include "monitors/system_monitor.h"

namespace nightjar::monitors {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::namedZone;
using Dictionary = plist::Dictionary;

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

TEST_F(SystemMonitorTest, ConsoleReportsBecomeLoginsAndLogouts) {
  createWithFakes(watcher_);
  console_->report(testing::userSession("alice", 1000, 100));
  console_->report(testing::userSession("", 1001, std::nullopt));  // the same user again counts
  console_->report(testing::greeterSession());
  console_->report(platform::ConsoleSession{});
  EXPECT_THAT(recorder_->names(), ElementsAre("externalevents.login", "externalevents.login",
                                              "externalevents.logout", "externalevents.logout"));
  EXPECT_EQ(recorder_->posts[0].object, monitor_);
  EXPECT_EQ(recorder_->posts[0].userInfo,
            plist::Value::dictionary(Dictionary{{"username", plist::Value::string("alice")},
                                                {"uid", plist::Value::integer(1000)},
                                                {"gid", plist::Value::integer(100)}}));
  // What is unknown is left out.
  EXPECT_EQ(recorder_->posts[1].userInfo,
            plist::Value::dictionary(Dictionary{{"uid", plist::Value::integer(1001)}}));
  EXPECT_TRUE(recorder_->posts[2].userInfo.isNone());
}

TEST_F(SystemMonitorTest, ConsoleUserIsActiveOnlyForAUserSession) {
  EXPECT_FALSE(isConsoleUserActive());  // no monitor
  createWithFakes(watcher_);
  EXPECT_FALSE(isConsoleUserActive());
  console_->session = testing::userSession("alice", 1000, 100);
  EXPECT_TRUE(isConsoleUserActive());
  console_->session = testing::greeterSession();
  EXPECT_FALSE(isConsoleUserActive());
}

TEST_F(SystemMonitorTest, SleepAndWakeArePosted) {
  createWithFakes(watcher_);
  power_->sleep();
  power_->wake();
  EXPECT_THAT(recorder_->names(), ElementsAre("externalevents.sleep", "externalevents.wake"));
  EXPECT_EQ(recorder_->posts[1].object, monitor_);
}

TEST_F(SystemMonitorTest, IdleSleepIsRefusedWhileActivityIsAboveZero) {
  testing::RecordingLogSink log;
  createWithFakes(watcher_);
  systemMonitorRaiseActivity(monitor_);
  systemMonitorRaiseActivity(monitor_);  // nested: already refusing
  systemMonitorLowerActivity(monitor_);
  EXPECT_TRUE(guard_->held());
  systemMonitorLowerActivity(monitor_);
  EXPECT_EQ(guard_->holds, 1);
  EXPECT_EQ(guard_->releases, 1);
  EXPECT_THAT(log.lines, ElementsAre(std::make_pair(LOG_INFO, "Dening idle sleep request")));

  systemMonitorRaiseActivity(monitor_);  // each new performance refuses again
  EXPECT_EQ(guard_->holds, 2);
  EXPECT_EQ(log.lines.size(), 2u);
  EXPECT_THAT(recorder_->posts, IsEmpty());
}

TEST_F(SystemMonitorTest, WithoutFacilitiesNothingIsPostedOrRefused) {
  testing::RecordingLogSink log;
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

TEST_F(SystemMonitorTest, OnlyARealZoneChangeIsPosted) {
  createWithFakes(watcher_);
  EXPECT_THAT(source_->adds, ElementsAre("/etc/"));
  source_->change("/etc/");  // say, a new entry in /etc/
  EXPECT_THAT(recorder_->posts, IsEmpty());

  zone_->zone = namedZone("Asia/Tokyo");
  source_->change("/etc/");
  source_->change("/etc/");
  EXPECT_THAT(recorder_->names(), ElementsAre("externalevents.timezone"));

  // An unreadable zone is no change, and the held zone stays.
  zone_->zone.reset();
  source_->change("/etc/");
  zone_->zone = namedZone("Asia/Tokyo");
  source_->change("/etc/");
  EXPECT_EQ(recorder_->posts.size(), 1u);
}

TEST_F(SystemMonitorTest, ZoneIsFollowedOnlyWithWatcherAndReadableZone) {
  createWithFakes(nullptr);
  EXPECT_EQ(zone_->reads, 0);
  systemMonitorDestroy(nullptr);

  SystemMonitorPorts ports;
  ports.timeZone = std::make_unique<testing::FakeTimeZoneSource>();  // unreadable
  create(watcher_, std::move(ports));
  EXPECT_THAT(source_->adds, IsEmpty());
}

TEST_F(SystemMonitorTest, DestroyDropsTheWatchOnlyWhenGivenTheWatcher) {
  createWithFakes(watcher_);
  systemMonitorDestroy(nullptr);
  EXPECT_EQ(systemMonitorGet(), nullptr);
  source_->change("/etc/");  // the watch stays; the gone monitor hears nothing

  createWithFakes(watcher_);  // the watch is now referenced twice
  systemMonitorDestroy(watcher_);
  systemMonitorDestroy(watcher_);  // absent: nothing
  EXPECT_THAT(source_->removes, IsEmpty());
  fileWatcherRemove(watcher_, "/etc/");  // the first monitor's reference was the last
  EXPECT_EQ(source_->removes.size(), 1u);
}

TEST(MonitorDecisionsTest, IdleSleepIsRefusedOnlyWhilePerforming) {
  using enum PowerMessage;
  EXPECT_EQ(answerPowerMessage(IdleSleepQuery, 0), PowerAnswer::Allow);
  EXPECT_EQ(answerPowerMessage(IdleSleepQuery, 1), PowerAnswer::Refuse);
  EXPECT_EQ(answerPowerMessage(IdleSleepQuery, 3), PowerAnswer::Refuse);
  EXPECT_EQ(answerPowerMessage(IdleSleepQuery, -1), PowerAnswer::Allow);
  // A sleep already decided, and a wake, are never refused.
  EXPECT_EQ(answerPowerMessage(SystemWillSleep, 1), PowerAnswer::Allow);
  EXPECT_EQ(answerPowerMessage(SystemHasPoweredOn, 1), PowerAnswer::Allow);
}

TEST(MonitorDecisionsTest, ZoneChangeNeedsAReadableDifferentZone) {
  const auto paris = testing::namedZone("Europe/Paris");
  auto updated = paris;  // same name, new rules: a tzdata update
  updated.data.push_back(0);
  EXPECT_FALSE(timeZoneChanged(paris, paris));
  EXPECT_TRUE(timeZoneChanged(paris, testing::namedZone("Asia/Tokyo")));
  EXPECT_TRUE(timeZoneChanged(paris, updated));
  EXPECT_TRUE(timeZoneChanged(std::nullopt, paris));
  EXPECT_FALSE(timeZoneChanged(paris, std::nullopt));
}

}  // namespace
}  // namespace nightjar::monitors
