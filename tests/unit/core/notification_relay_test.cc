#include "core/notification_relay.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fakes/fake_distributed_center.h"
#include "runloop/clock.h"

namespace nightjar::core {
namespace {

using plist::Value;

class RelayTest : public ::testing::Test {
 protected:
  void SetUp() override {
    loop_ = runloop::RunLoop::create();
    ASSERT_NE(loop_, nullptr);
    ASSERT_TRUE(relayCreate());
    relayAddCallbacks(relayGet(), distributedPoster(&center_));
    relayObserve(relayGet(), &bus_, &scheduler_);
    relayObserve(relayGet(), &bus_, &controller_);
  }
  void TearDown() override {
    relayDestroy();
    loop_.reset();
  }
  // Runs each piece of work in a pass of its own, letting the loop reach its
  // before-sleep point between them, then stops. A loop runs only once.
  void runPasses(std::vector<std::function<void()>> passes) {
    std::size_t next = 0;
    std::unique_ptr<runloop::Timer> timer;
    timer = loop_->addTimer([&] {
      if (next == passes.size()) {
        loop_->stop();
        return;
      }
      passes[next++]();
      timer->setNextFireDate(runloop::systemClock().now() + 0.01);
    });
    ASSERT_NE(timer, nullptr);
    timer->setNextFireDate(runloop::systemClock().now());
    loop_->run();
  }

  std::unique_ptr<runloop::RunLoop> loop_;
  runloop::NotificationCenter bus_;
  testing::FakeDistributedCenter center_;
  int scheduler_ = 0, controller_ = 0, eventList_ = 0;
};

TEST_F(RelayTest, ABurstLeavesAsOneBroadcastPerNameInOrderOfFirstQueueing) {
  runPasses({[&] {
    for (int i = 0; i < 10; ++i)
      bus_.post("scheduler.events", &scheduler_);
    bus_.post("notifications.pending", &controller_,
              Value::dictionary({{"Parameter", Value::array({})}}));
    bus_.post("scheduler.events", &scheduler_);
    bus_.post("events.add", &eventList_);  // not an observed object
  }});
  EXPECT_EQ(center_.names(),
            (std::vector<std::string>{"scheduler.events", "notifications.pending"}));
  for (const auto& [name, info] : center_.broadcasts)
    EXPECT_EQ(info, Value::dictionary({})) << name;
}

TEST_F(RelayTest, NamesQueuedInLaterPassesLeaveAgain) {
  runPasses({[&] { bus_.post("scheduler.events", &scheduler_); },
             [&] { bus_.post("scheduler.events", &scheduler_); }});
  EXPECT_EQ(center_.names(), (std::vector<std::string>{"scheduler.events", "scheduler.events"}));
}

TEST_F(RelayTest, QueuedBeforeTheLoopRunsLeavesOnTheFirstPassAndDestroyFlushesTheRest) {
  relayQueue(relayGet(), "socket.open");
  runPasses({});
  EXPECT_EQ(center_.names(), std::vector<std::string>{"socket.open"});
  relayQueue(relayGet(), "socket.closed");
  relayQueue(relayGet(), "socket.closed");
  relayDestroy();
  EXPECT_EQ(relayGet(), nullptr);
  EXPECT_EQ(center_.names(), (std::vector<std::string>{"socket.open", "socket.closed"}));
  bus_.post("scheduler.events", &scheduler_);  // the relay no longer observes
  EXPECT_EQ(bus_.observationCount(), 0u);
}

TEST_F(RelayTest, CallbacksStartOnRegistrationAndStopOnDestroy) {
  std::vector<std::string> calls;
  RelayCallbacks callbacks;
  callbacks.start = [&] { calls.push_back("start"); };
  callbacks.stop = [&] { calls.push_back("stop"); };
  callbacks.perform = [&](std::string_view name, const Value& parameter) {
    calls.push_back(std::string(name) + (parameter.isNone() ? "" : "+parameter"));
  };
  relayAddCallbacks(relayGet(), callbacks);
  relayQueue(relayGet(), "scheduler.enabled", Value::boolean(true));
  relayDestroy();
  EXPECT_EQ(calls, (std::vector<std::string>{"start", "scheduler.enabled", "stop"}));
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
