#include "platform/linux/atomic_file.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string_view>
#include <vector>

#include "platform/linux/daemon_root.h"
#include "platform/stored_file_limit.h"

namespace nightjar::platform::linux_adapter {

int UniqueFd::reset() {
  int error = 0;
  if (fd_ >= 0 && ::close(fd_) != 0)
    error = errno;
  fd_ = -1;
  return error;
}

int readBounded(int fd, std::string& bytes, std::size_t maxBytes) {
  char buffer[64 * 1024];
  while (bytes.size() <= maxBytes) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      return errno;
    if (n == 0)
      return 0;
    bytes.append(buffer, static_cast<std::size_t>(n));
  }
  return 0;
}

int writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      return errno;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return 0;
}

int writeAll(int fd, std::span<const std::string_view> pieces) {
  constexpr std::size_t kBatch = 1024;  // IOV_MAX on Linux
  std::vector<iovec> batch;
  std::size_t next = 0;    // the first piece not wholly written
  std::size_t offset = 0;  // bytes of it already written
  while (next < pieces.size()) {
    batch.clear();
    for (std::size_t i = next; i < pieces.size() && batch.size() < kBatch; ++i) {
      const std::string_view piece = i == next ? pieces[i].substr(offset) : pieces[i];
      batch.push_back({const_cast<char*>(piece.data()), piece.size()});
    }
    ssize_t n = ::writev(fd, batch.data(), static_cast<int>(batch.size()));
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      return errno;
    auto written = static_cast<std::size_t>(n);
    while (next < pieces.size() && written >= pieces[next].size() - offset) {
      written -= pieces[next].size() - offset;
      offset = 0;
      ++next;
    }
    offset += written;
  }
  return 0;
}

int makeFolders(std::string_view root, std::string_view absoluteFolder, mode_t mode) {
  for (std::size_t end = absoluteFolder.find('/', 1);; end = absoluteFolder.find('/', end + 1)) {
    const std::string folder = underRoot(root, absoluteFolder.substr(0, end));
    if (::mkdir(folder.c_str(), mode) == 0) {
      ::chmod(folder.c_str(), mode);
    } else if (errno != EEXIST) {
      return errno;
    }
    if (end == std::string_view::npos)
      return 0;
  }
}

int writeFileAtomically(const std::string& folder, const std::string& path, std::string_view bytes,
                        mode_t mode) {
  return writeFileAtomically(folder, path, std::span<const std::string_view>(&bytes, 1), mode);
}

int writeFileAtomically(const std::string& folder, const std::string& path,
                        std::span<const std::string_view> pieces, mode_t mode) {
  const std::size_t slash = path.rfind('/');
  std::string temporary =
      folder + "/." + (slash == std::string::npos ? path : path.substr(slash + 1)) + ".XXXXXX";
  UniqueFd fd(::mkostemp(temporary.data(), O_CLOEXEC));
  if (fd.get() < 0)
    return errno;
  int error = ::fchmod(fd.get(), mode) != 0 ? errno : 0;
  if (error == 0)
    error = writeAll(fd.get(), pieces);
  if (error == 0 && ::fsync(fd.get()) != 0)
    error = errno;
  int closeError = fd.reset();
  if (error == 0)
    error = closeError;
  if (error == 0 && ::rename(temporary.c_str(), path.c_str()) != 0)
    error = errno;
  if (error != 0) {
    ::unlink(temporary.c_str());
    return error;
  }
  UniqueFd folderFd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folderFd.get() < 0)
    return errno;
  return ::fsync(folderFd.get()) != 0 ? errno : 0;
}

std::string keepAside(const std::string& path, std::time_t now, int& error) {
  struct tm utc {};
  char stamp[32] = "";
  if (::gmtime_r(&now, &utc) != nullptr)
    std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &utc);
  const std::string base = path + ".unreadable-" + stamp;
  for (int attempt = 1; attempt <= 9; ++attempt) {
    std::string aside = attempt == 1 ? base : base + "-" + std::to_string(attempt);
    // Never over another kept file: each holds state that could not be read.
    if (::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) == 0)
      return aside;
    error = errno;
    if (error != EEXIST)
      return {};
  }
  return {};
}

std::size_t storedFileLimit() {
  static const std::size_t limit = [] {
    const char* text = std::getenv("NIGHTJAR_TEST_MAX_FILE_BYTES");
    if (text == nullptr)
      return kMaxStoredFileBytes;
    const std::string_view view(text);
    std::size_t bytes = 0;
    auto [end, fault] = std::from_chars(view.data(), view.data() + view.size(), bytes);
    if (fault != std::errc() || end != view.data() + view.size() || bytes < 4096)
      return kMaxStoredFileBytes;
    return std::min(bytes, kMaxStoredFileBytes);
  }();
  return limit;
}

}  // namespace nightjar::platform::linux_adapter
