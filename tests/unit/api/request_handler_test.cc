#include "api/request_handler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <thread>
#include <utility>

#include "api/authorization.h"
#include "api/dispatcher_testing.h"
#include "api/refusal_log.h"
#include "fakes/fake_policy_database.h"
#include "wire/authorization_testing.h"

namespace nightjar::api::testing {
namespace {

// The real rights check with the default rights installed and no polkit on
// the system, so the installed policy decides; the peer is pid 4242 of uid
// 1000, started at tick 777.
class AuthorizeAsTest : public DispatcherTest {
 protected:
  void SetUp() override {
    DispatcherTest::SetUp();
    auto database = std::make_unique<nightjar::testing::FakePolicyDatabase>();
    installDefaultRights(*database);
    proc_.add(4242, 777);
    ASSERT_TRUE(authorizationCreate({std::move(database), nullptr, proc_.root.path}));
  }
  void TearDown() override {
    authorizationDestroy();
    DispatcherTest::TearDown();
  }

  Value dispatchAs(Value request, Value form) {
    Value reply;
    dispatchRequest(request.with("Authorization", std::move(form)), authorizeAs(kPeer),
                    [&reply](Value answer) { reply = std::move(answer); });
    return reply;
  }

  static constexpr platform::PeerCredentials kPeer{.pid = 4242, .uid = 1000, .gid = 1000};
  nightjar::testing::FakeProc proc_;
};

TEST_F(AuthorizeAsTest, ReadRightsAreGrantedAndWriteRightsRefusedForAnUnprivilegedPeer) {
  const Value form = nightjar::testing::formValue(4242, 1000, 777);
  EXPECT_EQ(dispatchAs(request("build.version"), form), response(200, S("nightjard v3.7.3")));
  log_.lines.clear();
  EXPECT_EQ(dispatchAs(request("scheduler.set", validEvent("a")), form),
            refusal(model::refusal::kRequestMustBeAuthorized));
  EXPECT_EQ(log_.lines.front(),
            std::pair(LOG_NOTICE, std::string("Authorization refused: "
                                              "quillon.nightjar.scheduler.set")));
  EXPECT_EQ(model::eventListGet()->events().size(), 0);
}

TEST_F(AuthorizeAsTest, AFormThatNamesAnotherProcessIsRefused) {
  EXPECT_EQ(dispatchAs(request("build.version"), nightjar::testing::formValue(4243, 1000, 777)),
            refusal(model::refusal::kRequestMustBeAuthorized));
  EXPECT_EQ(dispatchAs(request("build.version"), nightjar::testing::formValue(4242, 1000, 778)),
            refusal(model::refusal::kRequestMustBeAuthorized));
}

// A refusal loop cannot flood the log: its lines are bounded per uid and a
// second, and the rest are counted once their second is over.
TEST_F(AuthorizeAsTest, RefusalLinesAreBoundedPerUid) {
  const Value form = nightjar::testing::formValue(4242, 1000, 777);
  log_.lines.clear();
  for (int i = 0; i < 200; ++i)
    dispatchAs(request("scheduler.set", validEvent("a")), form);
  auto count = [this](std::string_view text) {
    return std::count_if(log_.lines.begin(), log_.lines.end(),
                         [&](const auto& line) { return line.second.find(text) == 0; });
  };
  // At most two seconds' worth, even when the loop crossed into the next one.
  EXPECT_LE(count("Authorization refused") + count("API: "), 2 * kRefusalLinesPerSecond);
  const double second = std::floor(runloop::systemClock().now());
  while (std::floor(runloop::systemClock().now()) == second)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  dispatchAs(request("scheduler.set", validEvent("a")), form);
  EXPECT_GE(count("Suppressed "), 1);
}

}  // namespace
}  // namespace nightjar::api::testing
