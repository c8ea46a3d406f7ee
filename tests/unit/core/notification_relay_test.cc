#include "core/notification_relay.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fakes/port_fakes.h"
#include "runloop/loop_fixture.h"

namespace nightjar::core {
namespace {

using plist::Value;

class RelayTest : public runloop::LoopTest {
 protected:
  void SetUp() override {
    LoopTest::SetUp();
    ASSERT_TRUE(relayCreate());
    relayAddCallbacks(relayGet(), distributedPoster(&center_));
    relayObserve(relayGet(), &bus_, &scheduler_);
    relayObserve(relayGet(), &bus_, &controller_);
  }
  void TearDown() override { relayDestroy(); }

  runloop::NotificationCenter bus_;
  testing::FakeDistributedCenter center_;
  int scheduler_ = 0, controller_ = 0, eventList_ = 0;
};

// What is queued after a flush leaves at the next: here, the end of the loop's pass.
TEST_F(RelayTest, EachFlushBroadcastsEveryNameOnceInOrderOfFirstQueueing) {
  relayQueue(relayGet(), "socket.open");
  for (int i = 0; i < 3; ++i)
    bus_.post("scheduler.events", &scheduler_);
  bus_.post("notifications.pending", &controller_,
            Value::dictionary({{"Parameter", Value::array({})}}));
  bus_.post("scheduler.events", &scheduler_);
  bus_.post("events.add", &eventList_);  // not an observed object
  relayFlush(relayGet());
  bus_.post("scheduler.events", &scheduler_);
  stopAfter(0);
  runLoop();
  EXPECT_EQ(center_.names(),
            (std::vector<std::string>{"socket.open", "scheduler.events", "notifications.pending",
                                      "scheduler.events"}));
  for (const auto& [name, info] : center_.broadcasts)
    EXPECT_EQ(info, Value::dictionary({})) << name;
}

TEST_F(RelayTest, DestroyFlushesStopsTheCallbacksAndLeavesTheBus) {
  std::vector<std::string> calls;
  RelayCallbacks callbacks;
  callbacks.start = [&] { calls.push_back("start"); };
  callbacks.stop = [&] { calls.push_back("stop"); };
  callbacks.perform = [&](std::string_view name, const Value& parameter) {
    calls.push_back(std::string(name) + (parameter.isNone() ? "" : "+parameter"));
  };
  relayAddCallbacks(relayGet(), callbacks);
  relayQueue(relayGet(), "scheduler.enabled", Value::boolean(true));
  relayQueue(relayGet(), "scheduler.enabled");
  relayDestroy();
  EXPECT_EQ(calls, (std::vector<std::string>{"start", "scheduler.enabled", "stop"}));
  EXPECT_EQ(center_.names(), std::vector<std::string>{"scheduler.enabled"});
  EXPECT_EQ(relayGet(), nullptr);
  EXPECT_EQ(bus_.observationCount(), 0u);
  relayDestroy();  // absent: nothing happens
}

TEST(Relay, WithoutARunLoopThereIsNoRelayAndEveryCallIsHarmless) {
  ASSERT_EQ(runloop::RunLoop::current(), nullptr);
  EXPECT_FALSE(relayCreate());
  EXPECT_EQ(relayGet(), nullptr);
  relayQueue(nullptr, "socket.open");
  relayFlush(nullptr);
  relayAddCallbacks(nullptr, {});
  relayObserve(nullptr, nullptr, nullptr);
  distributedPoster(nullptr).perform("socket.open", Value());
}

}  // namespace
}  // namespace nightjar::core
