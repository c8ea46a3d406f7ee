#include "platform/linux/logind_console_user_source.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include "platform/logind_mock.h"

namespace nightjar::platform::linux_adapter {
namespace {

using namespace nightjar::testing::logind_mock;

class LogindConsoleUserSourceTest : public LogindTest {
 protected:
  void start() {
    source_ = makeLogindConsoleUserSource(connection_.get());
    ASSERT_NE(source_, nullptr);
    source_->setChangeHandler([this](const ConsoleSession& s) { reports_.push_back(s); });
  }
  bool waitForReports(std::size_t count) {
    return pump([&] { return reports_.size() >= count; });
  }

  std::unique_ptr<ConsoleUserSource> source_;
  std::vector<ConsoleSession> reports_;
};

TEST_F(LogindConsoleUserSourceTest, UserGreeterAndNoSessionAreReported) {
  addSeat(driver_.get(), "seat0");
  start();
  addSession(driver_.get(), "c1", "seat0", getuid(), "alice");
  ASSERT_TRUE(waitForReports(1));
  EXPECT_EQ(reports_[0].kind, ConsoleSessionKind::User);
  EXPECT_EQ(reports_[0].name, "alice");
  EXPECT_EQ(reports_[0].uid, getuid());
  EXPECT_EQ(reports_[0].gid, getpwuid(getuid())->pw_gid);
  EXPECT_EQ(source_->current().kind, ConsoleSessionKind::User);

  // A login screen on another seat is no news; made active on seat0, it is.
  addSession(driver_.get(), "g1", "seat1", getuid(), "alice");
  call(driver_.get(), sessionPath("g1"), kProperties, "Set", "ssv",
       "org.freedesktop.login1.Session", "Class", "s", "greeter");
  activate(driver_.get(), "g1");
  ASSERT_TRUE(waitForReports(2));
  EXPECT_EQ(reports_[1].kind, ConsoleSessionKind::Greeter);
  activate(driver_.get(), "");
  ASSERT_TRUE(waitForReports(3));
  EXPECT_EQ(reports_[2].kind, ConsoleSessionKind::None);
  EXPECT_EQ(source_->current().kind, ConsoleSessionKind::None);
}

TEST_F(LogindConsoleUserSourceTest, SessionAtStartIsLearntNotReportedAndStrangersHaveNoGroup) {
  constexpr uid_t kStranger = 3'999'999;
  ASSERT_EQ(getpwuid(kStranger), nullptr);
  addSession(driver_.get(), "c1", "seat0", kStranger, "ghost");
  start();
  ASSERT_TRUE(pump([&] { return source_->current().kind == ConsoleSessionKind::User; }));
  EXPECT_EQ(source_->current().name, "ghost");
  EXPECT_EQ(source_->current().uid, kStranger);
  EXPECT_EQ(source_->current().gid, std::nullopt);
  EXPECT_TRUE(reports_.empty());
}

// Changes that follow each other before logind answered the first lookup are
// each reported, in order: user A, the login screen, then user B.
TEST_F(LogindConsoleUserSourceTest, QuickChangesAreEachReportedInOrder) {
  addSeat(driver_.get(), "seat0");
  addSession(driver_.get(), "a", "seat0", getuid(), "alice");
  addSession(driver_.get(), "g1", "seat1", getuid(), "greeter");
  call(driver_.get(), sessionPath("g1"), kProperties, "Set", "ssv",
       "org.freedesktop.login1.Session", "Class", "s", "greeter");
  addSession(driver_.get(), "b", "seat1", getuid(), "bob");
  start();
  activate(driver_.get(), "g1");
  activate(driver_.get(), "b");
  activate(driver_.get(), "a");
  ASSERT_TRUE(waitForReports(3));
  EXPECT_EQ(reports_[0].kind, ConsoleSessionKind::Greeter);
  EXPECT_EQ(reports_[1].name, "bob");
  EXPECT_EQ(reports_[2].name, "alice");
  EXPECT_EQ(source_->current().name, "alice");

  // A login screen that has gone before it could be looked up still means
  // that nobody we can name is at the console.
  activate(driver_.get(), "g1");
  call(driver_.get(), kManager, kMock, "RemoveObject", "o", sessionPath("g1").c_str());
  activate(driver_.get(), "b");
  ASSERT_TRUE(waitForReports(5));
  EXPECT_NE(reports_[3].kind, ConsoleSessionKind::User);
  EXPECT_EQ(reports_[4].name, "bob");
  settle(driver_.get(), client_.get());
  EXPECT_EQ(reports_.size(), 5u);
}

TEST_F(LogindConsoleUserSourceTest, MalformedAndForgedChangesAreIgnored) {
  addSeat(driver_.get(), "seat0");
  addSession(driver_.get(), "c1", "seat1", getuid(), "alice");
  start();
  // logind's own signal, with ActiveSession of the wrong type.
  call(driver_.get(), seatPath("seat0"), kMock, "EmitSignal", "sssav", kProperties,
       "PropertiesChanged", "sa{sv}as", 3, "s", "org.freedesktop.login1.Seat", "a{sv}", 1,
       "ActiveSession", "s", "bogus", "as", 0);
  // A well-formed change, sent to us alone by someone who is not logind.
  sendForgedSignal(driver_.get(), client_.get(), seatPath("seat0"), kProperties,
                   "PropertiesChanged", "sa{sv}as", "org.freedesktop.login1.Seat", 1,
                   "ActiveSession", "(so)", "c1", sessionPath("c1").c_str(), 0);
  settle(driver_.get(), client_.get());
  EXPECT_TRUE(reports_.empty());

  activate(driver_.get(), "c1");  // and the seat is still followed
  ASSERT_TRUE(waitForReports(1));
  EXPECT_EQ(reports_[0].kind, ConsoleSessionKind::User);
}

}  // namespace
}  // namespace nightjar::platform::linux_adapter
