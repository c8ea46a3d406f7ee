#include "core/signal_socket.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "logging/logging.h"
#include "runloop/descriptors.h"

namespace nightjar::core {
namespace {

// Process-wide: the handler runs in signal context and can reach nothing else.
volatile sig_atomic_t gWriteDescriptor = -1;

struct InstalledSocket {
  int readDescriptor = -1;
  std::unique_ptr<runloop::Source> source;
  SignalRecordCallback callback;
};

InstalledSocket& installed() {
  static InstalledSocket socket;
  return socket;
}

void lowLevelHandler(int, siginfo_t* info, void*) {
  int saved = errno;
  // When the buffer is full the record is lost; nothing else is safe here.
  [[maybe_unused]] ssize_t n = write(gWriteDescriptor, info, sizeof(siginfo_t));
  errno = saved;
}

void readOneRecord(std::uint32_t) {
  siginfo_t record{};
  if (runloop::readFully(installed().readDescriptor, &record, sizeof record) != 0)
    return;
  if (installed().callback)
    installed().callback(record);
}

void closeBoth(int fds[2]) {
  if (fds[1] >= 0)
    close(fds[1]);
  if (fds[0] >= 0)
    close(fds[0]);
  gWriteDescriptor = -1;
}

// A second install (tests do that) replaces the first one's socket pair.
void dropEarlierInstall() {
  InstalledSocket& socket = installed();
  if (socket.readDescriptor < 0)
    return;
  socket.source.reset();
  socket.callback = nullptr;
  int fds[2] = {gWriteDescriptor, socket.readDescriptor};
  closeBoth(fds);
  socket.readDescriptor = -1;
}

}  // namespace

int signalSocketInstall(std::uint32_t signalSet, runloop::RunLoop& loop,
                        SignalRecordCallback callback) {
  dropEarlierInstall();
  int fds[2] = {-1, -1};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
    return errno;
  gWriteDescriptor = fds[0];
  // Both ends non-blocking: the handler must never block, and a partial record
  // must not stall the loop (readFully then fails with EAGAIN and skips it).
  int error = runloop::setNonBlocking(fds[0]);
  if (error == 0)
    error = runloop::setNonBlocking(fds[1]);
  if (error != 0) {
    closeBoth(fds);
    return error;
  }
  installed().readDescriptor = fds[1];
  installed().callback = std::move(callback);
  installed().source = loop.addFd(fds[1], EPOLLIN, readOneRecord);
  if (installed().source == nullptr) {
    installed().callback = nullptr;
    installed().readDescriptor = -1;
    closeBoth(fds);
    return EINVAL;
  }
  for (int n = 1; n <= 31; ++n) {
    if ((signalSet & signalBit(n)) == 0)
      continue;
    struct sigaction action {};
    action.sa_sigaction = lowLevelHandler;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    sigaction(n, &action, nullptr);
  }
  return 0;
}

void SignalRunLoopCallback(const siginfo_t& record, const SignalCallbacks& callbacks) {
  const SignalCallback* callback = nullptr;
  switch (record.si_signo) {
    case SIGHUP:
      logging::logMessage(LOG_INFO, "SIGHUP/restart signal caught");
      callback = &callbacks.restart;
      break;
    case SIGINT:
      logging::logMessage(LOG_INFO, "SIGINT/interrupt signal caught");
      callback = &callbacks.interrupt;
      break;
    case SIGQUIT:
    case SIGTERM:
      logging::logMessage(LOG_INFO, "SIGTERM/SIGQUIT/quit signal caught");
      callback = &callbacks.quit;
      break;
    case SIGUSR1:
      logging::logMessage(LOG_INFO, "SIGUSR1/rotate signal caught");
      callback = &callbacks.rotate;
      break;
    case SIGUSR2:
      logging::logMessage(LOG_INFO, "SIGUSR2/fetch signal caught");
      callback = &callbacks.fetch;
      break;
    default:
      logging::logMessage(LOG_ERR, "%s: Unknown signal %d caught and ignored",
                          "SignalRunLoopCallback", record.si_signo);
      return;
  }
  if (*callback)
    (*callback)(record.si_signo);
}

void installSignalHandlers(runloop::RunLoop& loop, SignalCallbacks callbacks) {
  int error = signalSocketInstall(kDaemonSignalSet, loop,
                                  [callbacks = std::move(callbacks)](const siginfo_t& record) {
                                    SignalRunLoopCallback(record, callbacks);
                                  });
  if (error != 0)
    logging::logMessage(LOG_ERR, "Error installing signal handlers: %d", error);
}

}  // namespace nightjar::core
