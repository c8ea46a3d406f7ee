#include "platform/linux/file_time_zone_source.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/linux/daemon_root.h"

namespace nightjar::platform::linux_adapter {
namespace {

constexpr char kLocalTimePath[] = "/etc/localtime";
// Compiled zones are a few kilobytes; a bigger file is not one.
constexpr std::size_t kMaxZoneFileSize = 1 << 20;

// What tells one version of the zone file from another without reading it.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  timespec mtime{};
  std::string linkTarget;
  bool operator==(const FileIdentity& other) const {
    return device == other.device && inode == other.inode && size == other.size &&
           mtime.tv_sec == other.mtime.tv_sec && mtime.tv_nsec == other.mtime.tv_nsec &&
           linkTarget == other.linkTarget;
  }
};

std::string linkTargetOf(const std::string& path) {
  char buffer[PATH_MAX];
  const ssize_t length = readlink(path.c_str(), buffer, sizeof buffer);
  if (length <= 0 || static_cast<std::size_t>(length) >= sizeof buffer)
    return {};
  return std::string(buffer, static_cast<std::size_t>(length));
}

// "../usr/share/zoneinfo/Europe/Paris" names "Europe/Paris"; a target outside
// a zoneinfo folder names itself.
std::string zoneNameOf(const std::string& linkTarget) {
  constexpr std::string_view kFolder = "zoneinfo/";
  const std::size_t at = linkTarget.rfind(kFolder);
  return at == std::string::npos ? linkTarget : linkTarget.substr(at + kFolder.size());
}

bool readWhole(int fd, std::size_t size, std::vector<std::uint8_t>& out) {
  out.resize(size);
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = read(fd, out.data() + done, size - done);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

// tzset() keeps its zone while TZ reads the same, even when the file behind it
// changed; passing through another value makes it load the file again.
void reloadLibraryZone() {
  const char* tz = std::getenv("TZ");
  const std::optional<std::string> saved = tz ? std::optional<std::string>(tz) : std::nullopt;
  setenv("TZ", "UTC0", /*overwrite=*/1);
  tzset();
  if (saved) {
    setenv("TZ", saved->c_str(), /*overwrite=*/1);
  } else {
    unsetenv("TZ");
  }
  tzset();
}

class FileTimeZoneSource final : public TimeZoneSource {
 public:
  explicit FileTimeZoneSource(std::string path) : path_(std::move(path)) {}

  std::optional<TimeZone> current() override {
    FileIdentity identity;
    identity.linkTarget = linkTargetOf(path_);
    const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      if (errno != ENOENT)
        return std::nullopt;
      return adopt(std::move(identity), TimeZone{});
    }
    std::optional<TimeZone> zone = readZone(fd, identity);
    close(fd);
    if (!zone)
      return std::nullopt;
    return adopt(std::move(identity), std::move(*zone));
  }

 private:
  // Fills `identity` from the open file; reads the zone only when the identity
  // is new. Answers the cached zone otherwise.
  std::optional<TimeZone> readZone(int fd, FileIdentity& identity) {
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode))
      return std::nullopt;
    identity.device = info.st_dev;
    identity.inode = info.st_ino;
    identity.size = info.st_size;
    identity.mtime = info.st_mtim;
    if (identity_ && *identity_ == identity)
      return zone_;
    if (static_cast<std::size_t>(info.st_size) > kMaxZoneFileSize)
      return std::nullopt;
    TimeZone zone;
    zone.name = zoneNameOf(identity.linkTarget);
    if (!readWhole(fd, static_cast<std::size_t>(info.st_size), zone.data))
      return std::nullopt;
    return zone;
  }

  TimeZone adopt(FileIdentity identity, TimeZone zone) {
    if (identity_ && *identity_ == identity)
      return zone_;
    identity_ = std::move(identity);
    zone_ = std::move(zone);
    reloadLibraryZone();
    return zone_;
  }

  std::string path_;
  std::optional<FileIdentity> identity_;  // of the file behind zone_
  TimeZone zone_;
};

}  // namespace

std::unique_ptr<TimeZoneSource> makeFileTimeZoneSource(const std::string& root) {
  const std::string path = underRoot(root, kLocalTimePath);
  if (underRoot(root, "/") != "/") {
    setenv("TZ", (":" + path).c_str(), /*overwrite=*/1);
    tzset();
  }
  return std::make_unique<FileTimeZoneSource>(path);
}

}  // namespace nightjar::platform::linux_adapter
