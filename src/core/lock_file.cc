#include "core/lock_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "logging/logging.h"

namespace nightjar::core {

bool advertise(const std::string& path) {
  mode_t previous = umask(022);
  FILE* file = std::fopen(path.c_str(), "w");
  int error = errno;
  umask(previous);
  if (file == nullptr) {
    logging::logMessage(LOG_ERR, "%s: Lock file creation error; path: %s; error: %d", "advertise",
                        path.c_str(), error);
    return false;
  }
  std::fprintf(file, "%d", static_cast<int>(getpid()));
  // A pid that did not reach the disk is no claim.
  if (std::fclose(file) != 0) {
    logging::logMessage(LOG_ERR, "%s: Lock file creation error; path: %s; error: %d", "advertise",
                        path.c_str(), errno);
    return false;
  }
  return true;
}

void stopAdvertising(const std::string& path) {
  if (unlink(path.c_str()) != 0) {
    logging::logMessage(LOG_ERR, "%s: Lock file removal error; path: %s; error: %d",
                        "stopAdvertising", path.c_str(), errno);
  }
}

void daemonise(const std::string& workingDirectory) {
  pid_t child = fork();
  if (child < 0) {
    std::fprintf(stderr, "%s: Error trying to fork: %d", "daemonise", errno);
    std::exit(1);
  }
  if (child > 0)
    std::_Exit(0);
  setsid();
  // One call instead of a close() per possible descriptor: the soft limit is
  // raised to the hard one at start, which may be hundreds of thousands.
  if (close_range(0, ~0U, 0) != 0) {
    for (int fd = getdtablesize(); fd >= 0; --fd)
      close(fd);
  }
  umask(027);
  [[maybe_unused]] int ignored = chdir(workingDirectory.c_str());
}

}  // namespace nightjar::core
