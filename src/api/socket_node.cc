#include "api/socket_node.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <optional>

#include "core/descriptors.h"

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
// never make the daemon change the mode or owner of another folder.
std::optional<Failure> prepareFolder(const std::string& folder) {
  if (mkdir(folder.c_str(), kFolderMode) != 0 && errno != EEXIST) {
    return Failure{"directory", errno};
  }
  const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    return Failure{"directory", errno};
  }
  struct stat status {};
  if (fstat(fd, &status) == 0 && status.st_uid != 0) {
    (void)fchown(fd, 0, 0);
  }
  (void)fchmod(fd, kFolderMode);
  const int result = fstat(fd, &status);
  const int statError = errno;
  close(fd);
  if (result != 0) {
    return Failure{"directory", statError};
  }
  if (!S_ISDIR(status.st_mode) || (status.st_mode & 0777) != kFolderMode || status.st_uid != 0) {
    return Failure{"directory", EPERM};
  }
  return std::nullopt;
}

// Binds with a file-creation mask of 0, so the node gets every permission bit;
// the previous mask is put back whatever bind answers.
std::optional<Failure> bindAt(int fd, const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  const mode_t previousMask = umask(0);
  unlink(path.c_str());
  const int result = bind(fd, reinterpret_cast<const sockaddr*>(&address),
                          static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size()));
  const int bindError = errno;
  umask(previousMask);
  if (result != 0) {
    unlink(path.c_str());
    return Failure{"bind", bindError};
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
  if (std::optional<Failure> failure = prepareFolder(folder)) {
    return failure;
  }
  if (std::optional<Failure> failure = bindAt(fd, path)) {
    return failure;
  }
  if (listen(fd, kListenBacklog) != 0) {
    const int error = errno;
    unlink(path.c_str());
    return Failure{"listen", error};
  }
  if (const int error = core::setNonBlocking(fd); error != 0) {
    unlink(path.c_str());
    return Failure{"listen", error};
  }
  return std::nullopt;
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
