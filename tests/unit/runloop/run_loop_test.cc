#include "runloop/run_loop.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <ctime>
#include <limits>
#include <string>
#include <vector>

#include "loop_fixture.h"
#include "runloop/descriptors.h"
#include "runloop/timer.h"

namespace nightjar::runloop {
namespace {

class RunLoopTest : public LoopTest {
 protected:
  void SetUp() override {
    LoopTest::SetUp();
    ASSERT_EQ(pipe(fds), 0);
  }
  void TearDown() override {
    close(fds[0]);
    close(fds[1]);
  }
  void writeByte() { ASSERT_EQ(write(fds[1], "x", 1), 1); }
  // Records each activity as "wait" or "exit"; stops the loop at `stopAtWait`.
  std::unique_ptr<ObserverHandle> recordingObserver(int stopAtWait) {
    return loop->addObserver(PassStage::SaveState, [this, stopAtWait](Activity activity) {
      log.push_back(activity == Activity::Exit ? "exit" : "wait");
      if (activity == Activity::BeforeWaiting && ++waits == stopAtWait)
        loop->stop();
    });
  }

  int fds[2] = {-1, -1};
  std::vector<std::string> log;
  int waits = 0;
};

// Work that arrives during a burst belongs to it: one end of pass after all.
TEST_F(RunLoopTest, ObserverRunsOnceAfterTheWholeBurst) {
  std::vector<std::unique_ptr<Timer>> timers;
  for (int i = 0; i < 3; ++i) {
    timers.push_back(loop->addTimer([this] {
      if (log.empty())
        writeByte();
      log.push_back("timer");
    }));
    timers.back()->setNextFireDate(systemClock().now() - 1);
  }
  auto source = loop->addFd(fds[0], EPOLLIN, [this](std::uint32_t revents) {
    EXPECT_EQ(revents, EPOLLIN);
    char c;
    EXPECT_EQ(read(fds[0], &c, 1), 1);
    log.push_back("fd");
  });
  auto observer = recordingObserver(/*stopAtWait=*/1);
  runLoop();
  ASSERT_EQ(log.size(), 6u);
  std::sort(log.begin(), log.begin() + 4);
  EXPECT_EQ(log, (std::vector<std::string>{"fd", "timer", "timer", "timer", "wait", "exit"}));
}

// The first pass runs with nothing queued; the timer's pass exits instead of
// waiting. A destroyed observer is never called; one may destroy its own handle.
TEST_F(RunLoopTest, StopInsideACallbackEndsRunWithExitInsteadOfWait) {
  recordingObserver(/*stopAtWait=*/0).reset();
  auto observer = recordingObserver(/*stopAtWait=*/0);
  std::unique_ptr<ObserverHandle> once;
  once = loop->addObserver(PassStage::SaveState, [&](Activity) {
    log.push_back("once");
    once.reset();
  });
  auto timer = loop->addTimer([this] {
    log.push_back("timer");
    loop->stop();
  });
  timer->setNextFireDate(systemClock().now() + 0.02);
  runLoop();
  EXPECT_EQ(log, (std::vector<std::string>{"wait", "once", "timer", "exit"}));
}

// Also: the current loop is the one created last, until it is destroyed.
TEST(RunLoopStagesTest, RunInTheirOrderWhateverTheOrderOfAddingAndAtExit) {
  auto older = RunLoop::create();
  for (const std::vector<int>& adding : {std::vector{0, 1, 2, 3}, {3, 2, 1, 0}, {2, 0, 3, 1}}) {
    auto loop = RunLoop::create();
    older.reset();  // does not clear the slot
    EXPECT_EQ(RunLoop::current(), loop.get());
    std::string seen;
    std::vector<std::unique_ptr<ObserverHandle>> observers;
    for (int stage : adding) {
      observers.push_back(loop->addObserver(PassStage(stage), [&, stage](Activity activity) {
        seen += (activity == Activity::Exit ? "x" : "w") + std::to_string(stage);
        if (stage == 3 && activity == Activity::BeforeWaiting)
          loop->stop();
      }));
    }
    EXPECT_EQ(loop->run(), 0);
    EXPECT_EQ(seen, "w0w1w2w3x0x1x2x3");
  }
  EXPECT_EQ(RunLoop::current(), nullptr);
}

TEST_F(RunLoopTest, ASourceThatIsAlwaysReadyCannotPostponeTheEndOfAPass) {
  writeByte();  // never read: the fd stays ready
  unsigned callbacks = 0;
  auto source = loop->addFd(fds[0], EPOLLIN, [&](std::uint32_t) { ++callbacks; });
  auto observer = loop->addObserver(PassStage::ReleaseReplies, [&](Activity) {
    if (callbacks > 0)
      loop->stop();
  });
  runLoop();
  EXPECT_LE(callbacks, RunLoop::kMaxDispatchesPerPass);
}

TEST(Descriptors, ReadFullyAnswersAnErrorNumberAndHowMuchItRead) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  ASSERT_EQ(write(fds[1], "abcdefgh", 8), 8);
  char buffer[6] = {};
  std::size_t got = 0;
  EXPECT_EQ(readFully(fds[0], buffer, sizeof buffer, &got), 0);
  EXPECT_EQ(std::string(buffer, got), "abcdef");
  ASSERT_EQ(setNonBlocking(fds[0]), 0);
  EXPECT_EQ(readFully(fds[0], buffer, sizeof buffer, &got), EAGAIN);
  EXPECT_EQ(got, 2u);
  EXPECT_EQ(setNonBlocking(-1), EBADF);

  ASSERT_EQ(ignoreSIGPIPE(), 0);
  ASSERT_EQ(write(fds[1], "x", 1), 1);
  close(fds[1]);
  EXPECT_EQ(readFully(fds[0], buffer, sizeof buffer), EPIPE);  // no out argument
  close(fds[0]);
  ASSERT_EQ(pipe(fds), 0);
  close(fds[0]);
  EXPECT_EQ(write(fds[1], "x", 1), -1);  // answered, instead of killing the test
  EXPECT_EQ(errno, EPIPE);
  close(fds[1]);
}

TEST(ClockTest, TheWallClockInUnixMicrosecondsClampedInsteadOfOverflowing) {
  EXPECT_NEAR(toUnixSeconds(systemClock().now()), static_cast<double>(std::time(nullptr)), 2.0);
  const std::uint64_t cap = std::uint64_t{1} << 62;
  const double inf = std::numeric_limits<double>::infinity();
  EXPECT_EQ(toUnixMicroseconds(0), 978307200000000u);
  EXPECT_EQ(toUnixMicroseconds(1.5e-6), 978307200000001u);  // floors
  EXPECT_EQ(toUnixMicroseconds(fromUnixSeconds(-1)), 0u);
  EXPECT_EQ(toUnixMicroseconds(std::nan("")), 0u);
  EXPECT_EQ(toUnixMicroseconds(inf), cap);
  EXPECT_LT(toUnixMicroseconds(kParkInterval), cap);
}

// A second ago, now, and long before the Unix epoch; each callback destroys its own timer.
TEST_F(RunLoopTest, PastDatesFireOnTheNextPass) {
  std::vector<std::unique_ptr<Timer>> timers;
  for (double date : {systemClock().now() - 1, systemClock().now() - 1e-9, -1e12}) {
    timers.push_back(loop->addTimer([this, &timers, i = timers.size()] {
      timers[i].reset();
      if (std::count(timers.begin(), timers.end(), nullptr) == 3)
        loop->stop();
    }));
    timers.back()->setNextFireDate(date);
  }
  runLoop();
}

// The last date set wins, never early; fired, a timer is off until set again.
// New and parked timers sit a century ahead; a destroyed one never fires.
TEST_F(RunLoopTest, FiresOnceAtTheLastDateSetUntilSetAgain) {
  std::vector<AbsoluteTime> firedAt;
  std::unique_ptr<Timer> timer = loop->timerFactory()([&] {
    firedAt.push_back(systemClock().now());
    if (firedAt.size() == 1)
      timer->setNextFireDate(systemClock().now());
  });
  const AbsoluteTime later = systemClock().now() + 0.02;
  timer->setNextFireDate(later - 0.015);
  timer->setNextFireDate(later);
  EXPECT_EQ(timer->nextFireDate(), later);
  auto fresh = loop->addTimer([&] { firedAt.push_back(0); });
  auto parked = loop->addTimer([&] { firedAt.push_back(0); });
  auto destroyed = loop->addTimer([&] { firedAt.push_back(0); });
  parked->setNextFireDate(systemClock().now() - 1);
  parked->park();
  destroyed->setNextFireDate(systemClock().now() - 1);
  destroyed.reset();
  EXPECT_NEAR(fresh->nextFireDate(), systemClock().now() + kParkInterval, 1.0);
  EXPECT_NEAR(parked->nextFireDate(), systemClock().now() + kParkInterval, 1.0);
  stopAfter(0.04);
  runLoop();
  ASSERT_EQ(firedAt.size(), 2u);
  EXPECT_GE(firedAt[0], later - 1e-5);  // one µs of rounding
}

}  // namespace
}  // namespace nightjar::runloop
