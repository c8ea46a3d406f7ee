#include "monitors/file_watcher.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "runloop/notification_center.h"

namespace nightjar::monitors {

using WatchId = platform::FileChangeSource::WatchId;

struct FileWatcher {
  struct Watch {
    int count = 0;
    WatchId id = 0;
  };
  std::unique_ptr<platform::FileChangeSource> source;
  std::map<std::string, Watch, std::less<>> watches;
};

namespace {

std::unique_ptr<FileWatcher>& slot() {
  static std::unique_ptr<FileWatcher> watcher;
  return watcher;
}

// Two paths naming one file share an id, so one change is posted under each.
// An observer may drop a watch while we post: such a path is skipped.
void deliverChange(FileWatcher* watcher, WatchId id) {
  std::vector<std::string> paths;
  for (const auto& [path, watch] : watcher->watches) {
    if (watch.id == id)
      paths.push_back(path);
  }
  for (const std::string& path : paths) {
    if (watcher->watches.contains(path))
      runloop::localCenter().post(path, watcher);
  }
}

}  // namespace

bool fileWatcherCreate(std::unique_ptr<platform::FileChangeSource> source) {
  if (slot() != nullptr)
    return true;
  if (source == nullptr)
    return false;
  auto watcher = std::make_unique<FileWatcher>();
  FileWatcher* raw = watcher.get();
  watcher->source = std::move(source);
  watcher->source->setChangeHandler([raw](WatchId id) { deliverChange(raw, id); });
  slot() = std::move(watcher);
  return true;
}

void fileWatcherDestroy() {
  // The source goes with the record, and every kernel watch with the source.
  slot().reset();
}

FileWatcher* fileWatcherGet() {
  return slot().get();
}

void fileWatcherAdd(FileWatcher* watcher, std::string_view path) {
  if (watcher == nullptr || path.empty())
    return;
  if (auto found = watcher->watches.find(path); found != watcher->watches.end()) {
    ++found->second.count;
    return;
  }
  std::optional<WatchId> id = watcher->source->add(path);
  if (!id)
    return;
  watcher->watches.emplace(std::string(path), FileWatcher::Watch{.count = 1, .id = *id});
}

void fileWatcherRemove(FileWatcher* watcher, std::string_view path) {
  if (watcher == nullptr)
    return;
  auto found = watcher->watches.find(path);
  if (found == watcher->watches.end())
    return;
  if (--found->second.count > 0)
    return;
  watcher->source->remove(found->second.id);
  watcher->watches.erase(found);
}

}  // namespace nightjar::monitors
