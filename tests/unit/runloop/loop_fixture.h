// A real run loop for tests, with a guard that ends a run that would hang.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "runloop/run_loop.h"

namespace nightjar::runloop {

class LoopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    loop = RunLoop::create();
    ASSERT_NE(loop, nullptr);
    guard = loop->addTimer([this] {
      timedOut = true;
      loop->stop();
    });
    guard->setNextFireDate(systemClock().now() + 2.0);
  }
  // Runs the loop once; fails the test when the guard had to end it.
  void runLoop() {
    EXPECT_EQ(loop->run(), 0);
    EXPECT_FALSE(timedOut) << "the loop ran until the guard stopped it";
  }
  // Stops the loop `seconds` from now.
  void stopAfter(double seconds) {
    stopper = loop->addTimer([this] { loop->stop(); });
    stopper->setNextFireDate(systemClock().now() + seconds);
  }

  std::unique_ptr<RunLoop> loop;
  std::unique_ptr<Timer> guard;
  std::unique_ptr<Timer> stopper;
  bool timedOut = false;
};

}  // namespace nightjar::runloop
