// Signals as run-loop events: the low-level handler only writes the siginfo
// record into a socket pair; the run loop reads it and calls the daemon's
// handler on the main thread, between its other callbacks.
#pragma once

#include <signal.h>

#include <cstdint>
#include <functional>

#include "runloop/run_loop.h"

namespace nightjar::core {

// Bit n-1 stands for signal n, n from 1 to 31.
constexpr std::uint32_t signalBit(int signal) {
  return 1u << (signal - 1);
}

// SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2.
inline constexpr std::uint32_t kDaemonSignalSet = signalBit(SIGHUP) | signalBit(SIGINT) |
                                                  signalBit(SIGQUIT) | signalBit(SIGTERM) |
                                                  signalBit(SIGUSR1) | signalBit(SIGUSR2);

using SignalRecordCallback = std::function<void(const siginfo_t& record)>;
using SignalCallback = std::function<void(int signal)>;

// Creates the process's signal socket pair, watches its read end on `loop` and
// installs the low-level handler for every signal in `signalSet`. Answers 0 or
// an error number; on failure no handler is installed and nothing is left open.
// Once per process: the socket lives until the process ends.
int signalSocketInstall(std::uint32_t signalSet, runloop::RunLoop& loop,
                        SignalRecordCallback callback);

// The five daemon callbacks, any of which may be empty.
struct SignalCallbacks {
  SignalCallback quit;       // SIGTERM, SIGQUIT
  SignalCallback interrupt;  // SIGINT
  SignalCallback restart;    // SIGHUP
  SignalCallback rotate;     // SIGUSR1
  SignalCallback fetch;      // SIGUSR2
};

// Logs the line of the record's signal, then calls its callback when set.
void SignalRunLoopCallback(const siginfo_t& record, const SignalCallbacks& callbacks);

// Installs the daemon's signal set on `loop` with SignalRunLoopCallback over
// `callbacks`; a failure is logged and the signals keep their default actions.
void installSignalHandlers(runloop::RunLoop& loop, SignalCallbacks callbacks);

}  // namespace nightjar::core
