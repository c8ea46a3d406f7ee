#include "platform/linux/logind_system_sleep.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "platform/dbusmock_calls.h"
#include "platform/logind_mock.h"

namespace nightjar::platform::linux_adapter {
namespace {

using namespace nightjar::testing::logind_mock;
using ::testing::ElementsAre;

class LogindSystemSleepTest : public LogindTest {
 protected:
  void SetUp() override {
    LogindTest::SetUp();
    sleep_ = makeLogindSystemSleep(connection_.get());
    ASSERT_NE(sleep_, nullptr);
  }
  std::vector<std::vector<std::string>> suspends() {
    return nightjar::testing::mockCalls(driver_.get(), kService, kManager, "Suspend");
  }
  // Makes logind's Suspend fail with the D-Bus error `name`.
  void refuseSuspend(const char* name) {
    const std::string code =
        "raise dbus.exceptions.DBusException('refused', name='" + std::string(name) + "')";
    call(driver_.get(), kManager, kMock, "AddMethod", "sssss", "org.freedesktop.login1.Manager",
         "Suspend", "b", "", code.c_str());
  }

  std::unique_ptr<SystemSleep> sleep_;
};

TEST_F(LogindSystemSleepTest, AsksForANonInteractiveSuspendWithoutWaiting) {
  int answer = -1;
  sleep_->sleepNow([&](int error) { answer = error; });
  EXPECT_EQ(answer, -1);  // the answer comes from the loop
  ASSERT_TRUE(pump([&] { return answer != -1; }));
  EXPECT_EQ(answer, 0);
  EXPECT_THAT(suspends(), ElementsAre(ElementsAre("false")));
}

TEST_F(LogindSystemSleepTest, ARefusalGivesItsErrorNumber) {
  refuseSuspend("org.freedesktop.DBus.Error.AccessDenied");
  int answer = -1;
  sleep_->sleepNow([&](int error) { answer = error; });
  ASSERT_TRUE(pump([&] { return answer != -1; }));
  EXPECT_EQ(answer, EACCES);

  // A bus error that names no errno still reads as a failure.
  refuseSuspend("org.freedesktop.login1.SleepVerbNotSupported");
  answer = -1;
  sleep_->sleepNow([&](int error) { answer = error; });
  ASSERT_TRUE(pump([&] { return answer != -1; }));
  EXPECT_GT(answer, 0);
}

TEST(LogindSystemSleepAloneTest, WithoutLogindTheCallFails) {
  EXPECT_EQ(makeLogindSystemSleep(nullptr), nullptr);
  nightjar::testing::PrivateBus bus;
  ASSERT_TRUE(bus.ok());
  auto loop = runloop::RunLoop::create();
  BusPtr client = bus.connect();
  ASSERT_TRUE(loop && client);
  ASSERT_GE(sd_bus_attach_event(client.get(), loop->event(), SD_EVENT_PRIORITY_NORMAL), 0);
  auto connection = SystemBusConnection::adopt(client.get());
  auto sleep = makeLogindSystemSleep(connection.get());
  int answer = -1;
  sleep->sleepNow([&](int error) { answer = error; });
  ASSERT_TRUE(nightjar::testing::runUntil(loop->event(), [&] { return answer != -1; }));
  EXPECT_GT(answer, 0);
}

// Dropping the adapter with a call under way drops its completion too.
TEST_F(LogindSystemSleepTest, DestroyingTheAdapterDropsAnUnansweredCall) {
  bool called = false;
  sleep_->sleepNow([&](int) { called = true; });
  sleep_.reset();
  ASSERT_TRUE(pump([&] { return suspends().size() == 1; }));
  settle(driver_.get(), client_.get());
  EXPECT_FALSE(called);
}

}  // namespace
}  // namespace nightjar::platform::linux_adapter
