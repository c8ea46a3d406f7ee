#include "core/signal_socket.h"

#include <gtest/gtest.h>

#include <vector>

#include "fakes/recording_log_sink.h"
#include "runloop/clock.h"

namespace nightjar::core {
namespace {

siginfo_t recordFor(int number) {
  siginfo_t record{};
  record.si_signo = number;
  return record;
}

TEST(SignalRunLoopCallback, LogsEachSignalAndCallsItsCallback) {
  testing::RecordingLogSink sink;
  std::vector<std::string> calls;
  auto recorder = [&calls](const char* which) {
    return [&calls, which](int n) { calls.push_back(std::string(which) + std::to_string(n)); };
  };
  SignalCallbacks callbacks{recorder("quit"), recorder("interrupt"), recorder("restart"),
                            recorder("rotate"), recorder("fetch")};
  for (int n : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2, 40}) {
    SignalRunLoopCallback(recordFor(n), callbacks);
  }
  EXPECT_EQ(sink.texts(), (std::vector<std::string>{
                              "SIGHUP/restart signal caught",
                              "SIGINT/interrupt signal caught",
                              "SIGTERM/SIGQUIT/quit signal caught",
                              "SIGTERM/SIGQUIT/quit signal caught",
                              "SIGUSR1/rotate signal caught",
                              "SIGUSR2/fetch signal caught",
                              "SignalRunLoopCallback: Unknown signal 40 caught and ignored",
                          }));
  EXPECT_EQ(sink.lines.back().first, LOG_ERR);
  EXPECT_EQ(sink.lines.front().first, LOG_INFO);
  EXPECT_EQ(calls, (std::vector<std::string>{"restart1", "interrupt2", "quit3", "quit15",
                                             "rotate10", "fetch12"}));
}

TEST(SignalRunLoopCallback, UnsetCallbacksOnlyLog) {
  testing::RecordingLogSink sink;
  SignalRunLoopCallback(recordFor(SIGUSR1), SignalCallbacks{});
  EXPECT_EQ(sink.texts(), std::vector<std::string>{"SIGUSR1/rotate signal caught"});
}

TEST(SignalSocket, SignalsArriveInTheRunLoopOneRecordEach) {
  EXPECT_EQ(kDaemonSignalSet, signalBit(1) | signalBit(2) | signalBit(3) | signalBit(15) |
                                  signalBit(10) | signalBit(12));
  auto loop = runloop::RunLoop::create();
  ASSERT_NE(loop, nullptr);
  std::vector<int> seen;
  ASSERT_EQ(signalSocketInstall(signalBit(SIGUSR1) | signalBit(SIGUSR2), *loop,
                                [&](const siginfo_t& record) {
                                  seen.push_back(record.si_signo);
                                  if (seen.size() == 3)
                                    loop->stop();
                                }),
            0);
  auto guard = loop->addTimer([&] { loop->stop(); });
  guard->setNextFireDate(runloop::systemClock().now() + 5);
  raise(SIGUSR1);
  raise(SIGUSR1);
  raise(SIGUSR2);
  loop->run();
  EXPECT_EQ(seen, (std::vector<int>{SIGUSR1, SIGUSR1, SIGUSR2}));
}

}  // namespace
}  // namespace nightjar::core
