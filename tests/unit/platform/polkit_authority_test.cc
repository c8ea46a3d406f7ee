#include "platform/linux/polkit_authority.h"

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
  void startPolkit() { ASSERT_TRUE(bus_.startTemplate("polkitd", kService)); }

  template <typename... Args>
  void mock(const char* member, const char* types, Args... args) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    EXPECT_GE(sd_bus_call_method(driver_.get(), kService, kPath, "org.freedesktop.DBus.Mock",
                                 member, &error, nullptr, types, args...),
              0)
        << member << ": " << (error.message ? error.message : "");
    sd_bus_error_free(&error);
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

TEST_F(PolkitAuthorityTest, PolkitGrantsAndRefuses) {
  startPolkit();
  auto authority = makePolkitAuthority(connection_.get());
  ASSERT_NE(authority, nullptr);
  const char* allowed[] = {kSet};
  mock("SetAllowed", "as", 1, allowed[0]);
  check(*authority, kSet);
  EXPECT_FALSE(answer_);  // never before the loop runs
  ASSERT_TRUE(answered());
  EXPECT_EQ(answer_, AuthorityAnswer::Granted);
  check(*authority, "quillon.nightjar.scheduler.remove");
  ASSERT_TRUE(answered());
  EXPECT_EQ(answer_, AuthorityAnswer::Refused);
}

TEST_F(PolkitAuthorityTest, NobodyOnPolkitsNameIsNoAuthority) {
  auto authority = makePolkitAuthority(connection_.get());
  ASSERT_NE(authority, nullptr);
  check(*authority, kSet);
  ASSERT_TRUE(answered());
  EXPECT_EQ(answer_, AuthorityAnswer::NoAuthority);
  EXPECT_EQ(makePolkitAuthority(nullptr), nullptr);
}

TEST_F(PolkitAuthorityTest, SilentPolkitRefusesAfterTheTimeOutWithoutBlockingTheLoop) {
  startPolkit();
  mock("SimulateHang", "b", 1);
  auto authority = makePolkitAuthority(connection_.get(), 100ms);
  int ticks = 0;
  std::unique_ptr<runloop::Timer> ticker;
  ticker = loop_->addTimer([&] {
    ++ticks;
    ticker->setNextFireDate(runloop::systemClock().now() + 0.01);
  });
  ticker->setNextFireDate(runloop::systemClock().now());
  check(*authority, kSet);
  ASSERT_TRUE(answered());
  EXPECT_EQ(answer_, AuthorityAnswer::Refused);
  EXPECT_GE(ticks, 3);  // the loop went on meanwhile

  // A check dropped with its authority never completes.
  check(*authority, kSet);
  authority.reset();
  EXPECT_FALSE(answered(100ms));
}

// polkit's own name, served by the test, to see the call exactly as sent.
struct RecordedCall {
  std::string kind, right, cancellationId;
  std::uint32_t pid = 0, flags = 99;
  std::uint64_t startTime = 0;
  std::int32_t uid = -1;
  std::size_t subjectKeys = 0, details = 99;
};

int readSubject(sd_bus_message* m, RecordedCall& call) {
  const char* kind = nullptr;
  int r = sd_bus_message_enter_container(m, 'r', "sa{sv}");
  if (r >= 0)
    r = sd_bus_message_read(m, "s", &kind);
  if (r >= 0)
    call.kind = kind;
  if (r >= 0)
    r = sd_bus_message_enter_container(m, 'a', "{sv}");
  while (r >= 0 && (r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
    const char* key = nullptr;
    sd_bus_message_read(m, "s", &key);
    std::string name = key;
    if (name == "pid")
      sd_bus_message_read(m, "v", "u", &call.pid);
    else if (name == "start-time")
      sd_bus_message_read(m, "v", "t", &call.startTime);
    else if (name == "uid")
      sd_bus_message_read(m, "v", "i", &call.uid);
    else
      sd_bus_message_skip(m, "v");
    ++call.subjectKeys;
    sd_bus_message_exit_container(m);
  }
  if (r >= 0)
    r = sd_bus_message_exit_container(m);
  return r >= 0 ? sd_bus_message_exit_container(m) : r;
}

int onCheck(sd_bus_message* m, void* userdata, sd_bus_error*) {
  auto& call = *static_cast<RecordedCall*>(userdata);
  const char* right = nullptr;
  const char* cancellation = nullptr;
  if (readSubject(m, call) < 0 || sd_bus_message_read(m, "s", &right) < 0)
    return -EINVAL;
  call.right = right;
  call.details = 0;
  sd_bus_message_enter_container(m, 'a', "{ss}");
  while (sd_bus_message_skip(m, "{ss}") > 0)
    ++call.details;
  sd_bus_message_exit_container(m);
  sd_bus_message_read(m, "us", &call.flags, &cancellation);
  call.cancellationId = cancellation;
  return sd_bus_reply_method_return(m, "(bba{ss})", 1, 0, 0);
}

const sd_bus_vtable kAuthorityVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("CheckAuthorization", "(sa{sv})sa{ss}us", "(bba{ss})", onCheck, 0),
    SD_BUS_VTABLE_END};

TEST_F(PolkitAuthorityTest, AsksAboutTheProcessWithoutInteraction) {
  RecordedCall call;
  sd_bus_slot* slot = nullptr;
  ASSERT_GE(
      sd_bus_add_object_vtable(driver_.get(), &slot, kPath, "org.freedesktop.PolicyKit1.Authority",
                               kAuthorityVtable, &call),
      0);
  SlotPtr owned(slot);
  ASSERT_GE(sd_bus_request_name(driver_.get(), kService, 0), 0);
  ASSERT_GE(sd_bus_attach_event(driver_.get(), loop_->event(), SD_EVENT_PRIORITY_NORMAL), 0);

  auto authority = makePolkitAuthority(connection_.get());
  check(*authority, kSet);
  ASSERT_TRUE(answered());
  EXPECT_EQ(answer_, AuthorityAnswer::Granted);
  EXPECT_EQ(call.kind, "unix-process");
  EXPECT_EQ(call.pid, 4242u);
  EXPECT_EQ(call.startTime, 123456789012ull);
  EXPECT_EQ(call.uid, 1000);
  EXPECT_EQ(call.subjectKeys, 3u);
  EXPECT_EQ(call.right, kSet);
  EXPECT_EQ(call.details, 0u);
  EXPECT_EQ(call.flags, 0u);  // no AllowUserInteraction
  EXPECT_EQ(call.cancellationId, "");
  sd_bus_detach_event(driver_.get());
}

TEST(PolkitTimeoutTest, EnvironmentSetsASaneTimeOut) {
  const std::pair<const char*, std::chrono::microseconds> cases[] = {
      {"0.25", 250001us},
      {"0", kDefaultPolkitTimeout},
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
