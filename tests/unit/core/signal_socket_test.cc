#include "core/signal_socket.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "fakes/recording_log_sink.h"
#include "runloop/loop_fixture.h"

namespace nightjar::core {
namespace {

TEST(SignalRunLoopCallback, LogsEachSignalAndCallsItsCallback) {
  testing::RecordingLogSink sink;
  std::string calls;
  auto recorder = [&calls](char which) {
    return [&calls, which](int n) { calls += which + std::to_string(n) + " "; };
  };
  const SignalCallbacks callbacks{recorder('q'), recorder('i'), recorder('h'), recorder('r'),
                                  recorder('f')};
  // The last, negated, with no callback set: only logged.
  for (int n : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2, 40, -SIGUSR1}) {
    siginfo_t record{};
    record.si_signo = std::abs(n);
    SignalRunLoopCallback(record, n > 0 ? callbacks : SignalCallbacks{});
  }
  EXPECT_EQ(sink.texts(), (std::vector<std::string>{
                              "SIGHUP/restart signal caught",
                              "SIGINT/interrupt signal caught",
                              "SIGTERM/SIGQUIT/quit signal caught",
                              "SIGTERM/SIGQUIT/quit signal caught",
                              "SIGUSR1/rotate signal caught",
                              "SIGUSR2/fetch signal caught",
                              "SignalRunLoopCallback: Unknown signal 40 caught and ignored",
                              "SIGUSR1/rotate signal caught",
                          }));
  EXPECT_EQ(sink.lines[6].first, LOG_ERR);
  EXPECT_EQ(sink.lines.front().first, LOG_INFO);
  EXPECT_EQ(calls, "h1 i2 q3 q15 r10 f12 ");
}

using SignalSocketTest = runloop::LoopTest;

TEST_F(SignalSocketTest, SignalsArriveInTheRunLoopOneRecordEach) {
  std::vector<int> seen;
  ASSERT_EQ(signalSocketInstall(signalBit(SIGUSR1) | signalBit(SIGUSR2), *loop,
                                [&](const siginfo_t& record) {
                                  seen.push_back(record.si_signo);
                                  if (seen.size() == 3)
                                    loop->stop();
                                }),
            0);
  raise(SIGUSR1);
  raise(SIGUSR1);
  raise(SIGUSR2);
  runLoop();
  EXPECT_EQ(seen, (std::vector<int>{SIGUSR1, SIGUSR1, SIGUSR2}));
}

}  // namespace
}  // namespace nightjar::core
