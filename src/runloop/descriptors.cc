#include "runloop/descriptors.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>

namespace nightjar::runloop {

namespace {

int ignoreSignal(int number) {
  struct sigaction action {};
  if (sigaction(number, nullptr, &action) != 0 && errno != 0)
    return errno;
  action.sa_handler = SIG_IGN;
  return sigaction(number, &action, nullptr) == 0 ? 0 : errno;
}

}  // namespace

int ignoreSIGPIPE() {
  return ignoreSignal(SIGPIPE);
}

int ignoreSIGXFSZ() {
  return ignoreSignal(SIGXFSZ);
}

int raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
    return errno;
  if (limit.rlim_cur == limit.rlim_max)
    return 0;
  limit.rlim_cur = limit.rlim_max;
  return setrlimit(RLIMIT_NOFILE, &limit) == 0 ? 0 : errno;
}

int setNonBlocking(int fd) {
  int flags = fcntl(fd, F_GETFL);
  if (flags < 0)
    flags = 0;
  return fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0 ? 0 : errno;
}

int readFully(int fd, void* buffer, std::size_t count, std::size_t* bytesRead) {
  auto* bytes = static_cast<char*>(buffer);
  std::size_t done = 0;
  int result = 0;
  while (done < count) {
    ssize_t n = read(fd, bytes + done, count - done);
    if (n > 0) {
      done += static_cast<std::size_t>(n);
    } else if (n == 0) {
      result = EPIPE;
      break;
    } else if (errno != EINTR) {
      result = errno;
      break;
    }
  }
  if (bytesRead != nullptr)
    *bytesRead = done;
  return result;
}

}  // namespace nightjar::runloop
