#include "platform/linux/polkit_authority.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <systemd/sd-bus.h>

#include <optional>

#include "platform/private_bus.h"

namespace nightjar::platform::linux_adapter {
namespace {

using namespace std::chrono_literals;

constexpr char kService[] = "org.freedesktop.PolicyKit1";
constexpr char kPath[] = "/org/freedesktop/PolicyKit1/Authority";
constexpr char kSet[] = "quillon.nightjar.scheduler.set";
const AuthorizationSubject kSubject{.pid = 4242, .uid = 1000, .startTime = 123456789012ull};

class PolkitAuthorityTest : public testing::BusTest {
 protected:
  template <typename... Args>
  void mock(const char* member, Args... args) {
    testing::callOrFail(driver_.get(), kService, kPath, "org.freedesktop.DBus.Mock", member,
                        args...);
  }

  // Starts a check whose answer lands in answer_.
  void check(Authority& authority, const std::string& right) {
    answer_.reset();
    authority.check(kSubject, right, [this](AuthorityAnswer answer) { answer_ = answer; });
  }
  bool answered(std::chrono::milliseconds timeout = 10s) {
    return pump([this] { return answer_.has_value(); }, timeout);
  }

  std::optional<AuthorityAnswer> answer_;
};

// Nobody on polkit's name is no authority; polkit itself grants or refuses.
TEST_F(PolkitAuthorityTest, PolkitGrantsRefusesOrTimesOut) {
  EXPECT_EQ(makePolkitAuthority(nullptr), nullptr);
  auto authority = makePolkitAuthority(connection_.get());
  ASSERT_NE(authority, nullptr);
  check(*authority, kSet);
  ASSERT_TRUE(answered());
  EXPECT_EQ(answer_, AuthorityAnswer::NoAuthority);
  ASSERT_TRUE(bus_.startTemplate("polkitd", kService));
  const char* allowed[] = {kSet};
  mock("SetAllowed", "as", 1, allowed[0]);
  check(*authority, kSet);
  EXPECT_FALSE(answer_);  // never before the loop runs
  ASSERT_TRUE(answered());
  EXPECT_EQ(answer_, AuthorityAnswer::Granted);
  check(*authority, "quillon.nightjar.scheduler.remove");
  ASSERT_TRUE(answered());
  EXPECT_EQ(answer_, AuthorityAnswer::Refused);
  // About the process, without details and without AllowUserInteraction.
  EXPECT_EQ(bus_.calls("polkitd", "CheckAuthorization").at(0),
            "dbus.Struct((dbus.String('unix-process'), dbus.Dictionary({"
            "dbus.String('pid'): dbus.UInt32(4242, variant_level=1), "
            "dbus.String('start-time'): dbus.UInt64(123456789012, variant_level=1), "
            "dbus.String('uid'): dbus.Int32(1000, variant_level=1)}, "
            "signature=dbus.Signature('sv'))), signature=None) "
            R"("quillon.nightjar.scheduler.set" {} 0 "")");
  // A silent polkit refuses after the time-out.
  mock("SimulateHang", "b", 1);
  authority = makePolkitAuthority(connection_.get(), 100ms);
  check(*authority, kSet);
  ASSERT_TRUE(answered());
  EXPECT_EQ(answer_, AuthorityAnswer::Refused);
  // A check dropped with its authority never completes.
  check(*authority, kSet);
  authority.reset();
  EXPECT_FALSE(answered(100ms));
}

TEST(PolkitTimeoutTest, EnvironmentSetsASaneTimeOut) {
  const std::pair<const char*, std::chrono::microseconds> cases[] = {
      {"0.25", 250001us},
      {"601", kDefaultPolkitTimeout},
      {"2s", kDefaultPolkitTimeout},
      {"nan", kDefaultPolkitTimeout}};
  for (const auto& [text, expected] : cases) {
    ::setenv("NIGHTJAR_POLKIT_TIMEOUT", text, 1);
    EXPECT_EQ(polkitTimeoutFromEnvironment(), expected) << text;
  }
  ::unsetenv("NIGHTJAR_POLKIT_TIMEOUT");
  EXPECT_EQ(polkitTimeoutFromEnvironment(), kDefaultPolkitTimeout);
}

}  // namespace
}  // namespace nightjar::platform::linux_adapter
