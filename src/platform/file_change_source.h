// Changes to watched files and directories, reported from the run loop.
#pragma once

#include <functional>
#include <optional>
#include <string_view>

namespace nightjar::platform {

class FileChangeSource {
 public:
  virtual ~FileChangeSource() = default;
  FileChangeSource() = default;
  FileChangeSource(const FileChangeSource&) = delete;
  FileChangeSource& operator=(const FileChangeSource&) = delete;

  using WatchId = int;
  using ChangeHandler = std::function<void(WatchId id)>;
  // Calls `handler` from the run loop once per change, in the order in which
  // the system reported them: a change of a watched file, or of a watched
  // directory or one of its entries. When changes may have been lost, every
  // watch is reported once. The source must not be destroyed from inside the
  // handler. Replaces any earlier handler. Run-loop thread only.
  virtual void setChangeHandler(ChangeHandler handler) = 0;

  // Starts watching `path` (absolute, resolved under the daemon's root).
  // Answers the watch's id, or nullopt when the path cannot be watched (it does
  // not exist, or the system refuses). Two paths that name the same file may
  // share one id; each add then needs its own remove. Run-loop thread only.
  virtual std::optional<WatchId> add(std::string_view path) = 0;
  // Ends one add of `id`; unknown ids are ignored. Run-loop thread only.
  virtual void remove(WatchId id) = 0;
};

}  // namespace nightjar::platform
