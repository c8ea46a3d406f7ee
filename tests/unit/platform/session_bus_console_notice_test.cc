#include "platform/linux/session_bus_console_notice.h"

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/private_bus.h"
#include "platform/temporary_root.h"

namespace nightjar::platform::linux_adapter {
namespace {

using ::testing::ElementsAre;

constexpr char kService[] = "org.freedesktop.Notifications";

// A private bus with dbusmock's notification server stands in for the console
// user's session bus, reached at "<root>/run/user/<uid>/bus".
class SessionBusConsoleNoticeTest : public nightjar::testing::BusTest {
 protected:
  void SetUp() override {
    BusTest::SetUp();
    ASSERT_TRUE(bus_.startTemplate("notification_daemon", kService));
    const std::string address = bus_.address();
    const std::string prefix = "unix:path=";
    ASSERT_EQ(address.rfind(prefix, 0), 0u);
    const std::string socket = address.substr(prefix.size(), address.find(',') - prefix.size());
    const std::string userRun = root_ / ("/run/user/" + std::to_string(getuid()));
    std::filesystem::create_directories(userRun);
    std::filesystem::create_symlink(socket, userRun + "/bus");
    notice_ = makeSessionBusConsoleNotice(*loop_, root_.path, [this] { return consoleUid_; });
  }

  std::vector<std::string> calls(const char* method) {
    return bus_.calls("notification_daemon", method);
  }
  bool pumpUntilCalled(const char* method) {
    return pump([&] { return !calls(method).empty(); });
  }

  nightjar::testing::TemporaryRoot root_;
  std::optional<uid_t> consoleUid_ = getuid();
  std::unique_ptr<ConsoleNotice> notice_;
};

// close() before the server answered closes the notice once it does; after,
// at once. The server names the notices 1, 2...
TEST_F(SessionBusConsoleNoticeTest, ShowsTheNoticeAndClosesItWhenSomeoneIsAtTheConsole) {
  EXPECT_TRUE(notice_->show("Scheduled restart has begun", "An automated restart has begun.", 2));
  notice_->close();
  ASSERT_TRUE(pumpUntilCalled("CloseNotification"));
  EXPECT_TRUE(notice_->show("header", "message", 2));
  ASSERT_TRUE(pump([&] { return calls("Notify").size() == 2; }));
  pump([] { return false; }, std::chrono::milliseconds(100));
  notice_->close();
  ASSERT_TRUE(pump([&] { return calls("CloseNotification").size() == 2; }));
  EXPECT_THAT(calls("CloseNotification"), ElementsAre("1", "2"));
  EXPECT_EQ(calls("Notify").at(0),
            R"("nightjard" 0 "" "Scheduled restart has begun" "An automated restart has begun." )"
            R"(["ok", "OK"] {} 2000)");
  // Nobody at the console, or a user without a session bus: no notice.
  consoleUid_.reset();
  EXPECT_FALSE(notice_->show("header", "message", 2));
  consoleUid_ = getuid() + 4242;
  EXPECT_FALSE(notice_->show("header", "message", 2));
  notice_->close();  // harmless
  pump([] { return false; }, std::chrono::milliseconds(100));
  EXPECT_EQ(calls("Notify").size(), 2u);
}

}  // namespace
}  // namespace nightjar::platform::linux_adapter
