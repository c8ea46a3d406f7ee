// Whole-file reads and replacements shared by the adapters that keep their
// state in files under the daemon's root.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <span>
#include <string>
#include <string_view>

namespace nightjar::platform::linux_adapter {

// One version of a file on disk. A rename-over gives a new inode and an edit in
// place a new size or mtime, so either is seen as a change by one stat.
struct FileIdentity {
  bool exists = false;
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  std::int64_t mtimeNs = 0;
  bool operator==(const FileIdentity&) const = default;
};

inline FileIdentity identityOf(const struct stat& st) {
  return {true, st.st_dev, st.st_ino, st.st_size,
          std::int64_t{st.st_mtim.tv_sec} * 1'000'000'000 + st.st_mtim.tv_nsec};
}

// Owns one file descriptor.
class UniqueFd {
 public:
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  int get() const { return fd_; }
  // Closes now, answering 0 or the error number of close.
  int reset();

 private:
  int fd_;
};

// Appends what `fd` holds to `bytes`, stopping once `bytes` is longer than
// `maxBytes`, so the caller can tell an oversized file. Answers 0 or errno.
int readBounded(int fd, std::string& bytes, std::size_t maxBytes);

// Writes every byte, retrying short writes. Answers 0 or errno.
int writeAll(int fd, std::string_view bytes);
int writeAll(int fd, std::span<const std::string_view> pieces);

// Creates `absoluteFolder` ("/var/lib/x") and its missing parents under
// `root`, each with `mode` (set explicitly, as mkdir's is cut by the umask).
// Folders that exist are left as they are. Answers 0 or errno.
int makeFolders(std::string_view root, std::string_view absoluteFolder, mode_t mode);

// Replaces `path` (inside `folder`) with `bytes`: a fresh temporary file in
// the folder is filled, given `mode` and synced, renamed over `path`, and the
// folder is synced, so `path` holds the old or the new bytes whole, even
// across a crash. On failure the temporary file is removed. Answers 0 or errno.
int writeFileAtomically(const std::string& folder, const std::string& path, std::string_view bytes,
                        mode_t mode);
// The same for the bytes of `pieces` one after the other, written as they
// are, without joining them first.
int writeFileAtomically(const std::string& folder, const std::string& path,
                        std::span<const std::string_view> pieces, mode_t mode);

// Moves a file the daemon cannot read out of the way, so that the next write
// does not destroy it: `path` is renamed to "<path>.unreadable-YYYYMMDDTHHMMSSZ"
// (UTC at `now`, "-2" to "-9" appended when taken). Answers the new path, or
// empty with `error` set when nothing could be renamed.
std::string keepAside(const std::string& path, std::time_t now, int& error);

// The largest file the adapters write and read: kMaxStoredFileBytes, or the
// smaller value of $NIGHTJAR_TEST_MAX_FILE_BYTES (at least 4096) when set, so
// that end-to-end tests can try a file near the limit without building tens
// of megabytes. The variable can only lower the limit.
std::size_t storedFileLimit();

}  // namespace nightjar::platform::linux_adapter
