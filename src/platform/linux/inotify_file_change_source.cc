#include "platform/linux/inotify_file_change_source.h"

#include <limits.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <vector>

#include "platform/linux/daemon_root.h"

namespace nightjar::platform::linux_adapter {
namespace {

// Everything that changes a directory's entries or a file's contents or
// attributes, and the end of the watched object itself. IN_MODIFY is left out:
// IN_CLOSE_WRITE reports a rewrite once instead of once per write.
constexpr std::uint32_t kWatchMask = IN_ATTRIB | IN_CLOSE_WRITE | IN_CREATE | IN_DELETE |
                                     IN_DELETE_SELF | IN_MOVE_SELF | IN_MOVED_FROM | IN_MOVED_TO;

// Room for many events at once; an event is a header plus a name of at most
// NAME_MAX + 1 bytes, so one always fits.
constexpr std::size_t kReadBufferSize = 64 * (sizeof(inotify_event) + NAME_MAX + 1);

class InotifyFileChangeSource final : public FileChangeSource {
 public:
  InotifyFileChangeSource(int fd, std::string root) : fd_(fd), root_(std::move(root)) {}
  ~InotifyFileChangeSource() override {
    source_.reset();
    close(fd_);  // ends every watch
  }

  bool attach(runloop::RunLoop& loop) {
    source_ = loop.addFd(fd_, EPOLLIN, [this](std::uint32_t) { readEvents(); });
    return source_ != nullptr;
  }

  void setChangeHandler(ChangeHandler handler) override { handler_ = std::move(handler); }

  // The kernel answers the same id for a second path to the same file, so
  // each id counts its adds.
  std::optional<WatchId> add(std::string_view path) override {
    const std::string resolved = underRoot(root_, path);
    const int wd = inotify_add_watch(fd_, resolved.c_str(), kWatchMask);
    if (wd < 0)
      return std::nullopt;
    ++adds_[wd];
    return wd;
  }

  void remove(WatchId id) override {
    auto found = adds_.find(id);
    if (found == adds_.end())
      return;
    if (--found->second > 0)
      return;
    adds_.erase(found);
    inotify_rm_watch(fd_, id);
  }

 private:
  // One read per wake-up: the descriptor stays readable while events remain,
  // so the loop calls again.
  void readEvents() {
    alignas(inotify_event) char buffer[kReadBufferSize];
    const ssize_t length = read(fd_, buffer, sizeof buffer);
    if (length <= 0)
      return;
    std::size_t offset = 0;
    while (offset + sizeof(inotify_event) <= static_cast<std::size_t>(length)) {
      inotify_event event;
      std::memcpy(&event, buffer + offset, sizeof event);
      offset += sizeof(inotify_event) + event.len;
      if (offset > static_cast<std::size_t>(length))
        break;
      deliver(event);
    }
  }

  void deliver(const inotify_event& event) {
    if (event.mask & IN_Q_OVERFLOW) {
      reportEveryWatch();
    } else if (event.mask & IN_IGNORED) {
      // The kernel ended the watch (its object is gone): its id is dead.
      adds_.erase(event.wd);
    } else if (adds_.contains(event.wd) && handler_) {
      handler_(event.wd);
    }
  }

  // Events were lost, so any watched object may have changed.
  void reportEveryWatch() {
    std::vector<WatchId> ids;
    for (const auto& [id, count] : adds_)
      ids.push_back(id);
    for (WatchId id : ids) {
      if (adds_.contains(id) && handler_)
        handler_(id);
    }
  }

  int fd_;
  std::string root_;
  std::unique_ptr<runloop::Source> source_;
  std::map<WatchId, int> adds_;
  ChangeHandler handler_;
};

}  // namespace

std::unique_ptr<FileChangeSource> makeInotifyFileChangeSource(runloop::RunLoop& loop,
                                                              std::string root) {
  const int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd < 0)
    return nullptr;
  auto source = std::make_unique<InotifyFileChangeSource>(fd, std::move(root));
  if (!source->attach(loop))
    return nullptr;
  return source;
}

}  // namespace nightjar::platform::linux_adapter
