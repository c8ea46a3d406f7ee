#include "platform/linux/logind_idle_time_source.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "fakes/fake_clock.h"
#include "platform/logind_mock.h"

namespace nightjar::platform::linux_adapter {
namespace {

using namespace nightjar::testing::logind_mock;

// 2026-01-01 00:00:00 UTC, in microseconds since the epoch.
constexpr std::uint64_t kNowUsec = 1767225600ull * 1000000;

class LogindIdleTest : public LogindTest {
 protected:
  void SetUp() override {
    LogindTest::SetUp();
    clock_.set(runloop::fromUnixSeconds(static_cast<double>(kNowUsec) / 1e6));
    source_ = makeLogindIdleTimeSource(connection_.get(), clock_);
  }

  template <typename T>
  void setManager(const char* property, const char* type, T value) {
    call(driver_.get(), kManager, kProperties, "Set", "ssv", "org.freedesktop.login1.Manager",
         property, type, value);
  }
  void setIdle(bool idle, std::uint64_t sinceUsec) {
    setManager("IdleHint", "b", static_cast<int>(idle));
    setManager("IdleSinceHint", "t", sinceUsec);
  }

  // Asks for a fresh answer and runs the loop until it is in.
  double read() {
    int answers = 0;
    source_->setListener([&answers] { ++answers; });
    EXPECT_TRUE(source_->refresh());
    EXPECT_EQ(answers, 0);  // the loop never waits for logind
    EXPECT_TRUE(pump([&answers] { return answers > 0; }));
    source_->setListener({});
    return source_->idleTime();
  }

  fakes::FakeClock clock_;
  std::unique_ptr<IdleTimeSource> source_;
};

TEST_F(LogindIdleTest, IdleTimeRunsFromTheHintWhileTheUserIsIdle) {
  EXPECT_EQ(read(), 0);  // the mock starts active

  setIdle(true, kNowUsec - 700'500'000);  // 700.5 s ago
  EXPECT_DOUBLE_EQ(read(), 700.5);
  clock_.advance(3600);  // counted on from the last answer
  EXPECT_DOUBLE_EQ(source_->idleTime(), 4300.5);

  setIdle(false, kNowUsec - 700'500'000);         // the user came back
  EXPECT_DOUBLE_EQ(source_->idleTime(), 4300.5);  // not yet heard
  EXPECT_EQ(read(), 0);
}

TEST_F(LogindIdleTest, HintsThatMakeNoSenseReadAsZero) {
  setIdle(true, 0);  // idle since an unknown moment
  EXPECT_EQ(read(), 0);
  setIdle(true, kNowUsec + 60'000'000);  // ahead of the clock
  EXPECT_EQ(read(), 0);
  setManager("IdleHint", "s", "yes");  // not a boolean
  EXPECT_EQ(read(), 0);
}

TEST(LogindIdleWithoutLogind, AsksNothingAndAnswersZero) {
  fakes::FakeClock clock;
  EXPECT_FALSE(makeLogindIdleTimeSource(nullptr, clock)->refresh());
  nightjar::testing::PrivateBus bus;  // nobody owns logind's name here
  ASSERT_TRUE(bus.ok());
  auto client = bus.connect();
  ASSERT_NE(client, nullptr);
  auto connection = SystemBusConnection::adopt(client.get());
  EXPECT_EQ(makeLogindIdleTimeSource(connection.get(), clock)->idleTime(), 0);
}

}  // namespace
}  // namespace nightjar::platform::linux_adapter
