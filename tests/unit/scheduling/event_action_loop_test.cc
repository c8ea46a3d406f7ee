// Performing on the real run loop: the pause is a timer, not a sleep.
#include <sys/epoll.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fakes/fake_command_runner.h"
#include "runloop/run_loop.h"
#include "scheduling/event_action.h"

namespace nightjar::scheduling {
namespace {

using ::testing::ElementsAre;

// Given a shutdown being performed, expect a timer and an fd source that fall
// due during its 2-second pause to be served before the tool starts, and the
// tool to start no earlier than 2 seconds after the perform began.
TEST(EventActionLoopTest, OtherSourcesAreServedDuringThePause) {
  auto loop = runloop::RunLoop::create();
  ASSERT_NE(loop, nullptr);
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  std::vector<std::string> journal;
  testing::FakeCommandRunner commands;
  commands.trace = [&](const std::string&) { journal.push_back("tool"); };

  auto reader = loop->addFd(fds[0], EPOLLIN, [&](std::uint32_t) {
    char byte;
    EXPECT_EQ(read(fds[0], &byte, 1), 1);
    journal.push_back("fd");
  });
  auto writer = loop->addTimer([&] {
    journal.push_back("timer");
    EXPECT_EQ(write(fds[1], "x", 1), 1);
  });
  bool timedOut = false;
  auto guard = loop->addTimer([&] {
    timedOut = true;
    loop->stop();
  });
  const runloop::AbsoluteTime start = runloop::systemClock().now();
  writer->setNextFireDate(start + 0.2);
  guard->setNextFireDate(start + 10);

  EventActionPorts ports;
  ports.commands = &commands;
  ports.timers = loop->timerFactory();
  eventActionSetUp(std::move(ports));
  runloop::AbsoluteTime ended = 0;
  eventActionPerform(
      plist::Value::dictionary(
          {{"action", plist::Value::dictionary({{"type", plist::Value::string("shutdown")}})}}),
      [&] {
        ended = runloop::systemClock().now();
        journal.push_back("done");
        loop->stop();
      });
  EXPECT_TRUE(eventActionBusy());
  EXPECT_EQ(loop->run(), 0);

  EXPECT_FALSE(timedOut);
  EXPECT_THAT(journal, ElementsAre("timer", "fd", "tool", "done"));
  EXPECT_GE(ended - start, 1.999);
  eventActionTearDown();
  close(fds[0]);
  close(fds[1]);
}

}  // namespace
}  // namespace nightjar::scheduling
