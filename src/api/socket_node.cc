#include "api/socket_node.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <optional>

#include "runloop/descriptors.h"

namespace nightjar::api {
namespace {

constexpr mode_t kFolderMode = 0755;

struct Failure {
  const char* step;
  int error;
};

// Cuts `path` at its last "/"; empty when there is none (or only the first).
std::string folderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash == 0) {
    return {};
  }
  return path.substr(0, slash);
}

std::optional<Failure> checkParent(const std::string& parent) {
  struct stat status {};
  if (stat(parent.c_str(), &status) != 0) {
    return Failure{"parent", errno};
  }
  if ((status.st_mode & S_ISVTX) == 0 || status.st_uid != 0) {
    return Failure{"parent", EPERM};
  }
  return std::nullopt;
}

// Opened without following a link, so that a link planted in the parent can
// never make the daemon change the mode or owner of another folder. The
// folder stays open in `fd` for the bind (the caller closes it, also on failure).
std::optional<Failure> prepareFolder(const std::string& folder, int& fd) {
  if (mkdir(folder.c_str(), kFolderMode) != 0 && errno != EEXIST) {
    return Failure{"directory", errno};
  }
  fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    return Failure{"directory", errno};
  }
  struct stat status {};
  if (fstat(fd, &status) == 0 && status.st_uid != 0) {
    (void)fchown(fd, 0, 0);
  }
  (void)fchmod(fd, kFolderMode);
  if (fstat(fd, &status) != 0) {
    return Failure{"directory", errno};
  }
  if (!S_ISDIR(status.st_mode) || (status.st_mode & 0777) != kFolderMode || status.st_uid != 0) {
    return Failure{"directory", EPERM};
  }
  return std::nullopt;
}

// Binds `name` inside the checked folder through its descriptor, with a
// file-creation mask of 0, so the node gets every permission bit; the
// previous mask is put back whatever bind answers.
std::optional<Failure> bindAt(int fd, int folder, const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const int length = std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s",
                                   folder, name.c_str());
  // A name too long to be reached through the descriptor is refused rather
  // than bound by a path that may no longer lead to the checked folder.
  if (length < 0 || static_cast<std::size_t>(length) >= sizeof address.sun_path) {
    return Failure{"path", ENAMETOOLONG};
  }
  const mode_t previousMask = umask(0);
  unlinkat(folder, name.c_str(), 0);
  const int result =
      bind(fd, reinterpret_cast<const sockaddr*>(&address),
           static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::size_t(length)));
  const int bindError = errno;
  umask(previousMask);
  if (result != 0) {
    unlinkat(folder, name.c_str(), 0);
    return Failure{"bind", bindError};
  }
  return std::nullopt;
}

// Binds and listens inside the checked folder; leaves no node on failure.
std::optional<Failure> bindAndListen(int fd, int folder, const std::string& name) {
  if (std::optional<Failure> failure = bindAt(fd, folder, name)) {
    return failure;
  }
  const int error = listen(fd, kListenBacklog) != 0 ? errno : runloop::setNonBlocking(fd);
  if (error != 0) {
    unlinkat(folder, name.c_str(), 0);
    return Failure{"listen", error};
  }
  return std::nullopt;
}

std::optional<Failure> prepareAndListen(int fd, const std::string& path) {
  if (path.size() > kMaxSocketPathLength) {
    return Failure{"path", ENAMETOOLONG};
  }
  const std::string folder = folderOf(path);
  const std::string parent = folderOf(folder);
  if (folder.empty() || parent.empty()) {
    return Failure{"path", EINVAL};
  }
  if (std::optional<Failure> failure = checkParent(parent)) {
    return failure;
  }
  int folderFd = -1;
  std::optional<Failure> failure = prepareFolder(folder, folderFd);
  if (!failure) {
    failure = bindAndListen(fd, folderFd, path.substr(folder.size() + 1));
  }
  if (folderFd >= 0) {
    close(folderFd);
  }
  return failure;
}

}  // namespace

ListeningSocket openListeningSocket(const std::string& path) {
  ListeningSocket result;
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    result.failedStep = "socket";
    result.error = errno;
    return result;
  }
  if (std::optional<Failure> failure = prepareAndListen(fd, path)) {
    close(fd);
    result.failedStep = failure->step;
    result.error = failure->error;
    return result;
  }
  result.descriptor = fd;
  return result;
}

}  // namespace nightjar::api
