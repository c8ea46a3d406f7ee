// The file watcher: tells the daemon when a watched file or directory changes,
// as a notification on the local center whose name is the watched path and
// whose object is the watcher. Subscribers add a watch, then observe that name.
#pragma once

#include <memory>
#include <string_view>

#include "platform/file_change_source.h"

namespace nightjar::monitors {

struct FileWatcher;

// Makes the process-wide watcher over `source`, which reports changes from the
// run loop; does nothing when the watcher exists. Answers whether a watcher
// exists afterwards (false when `source` is null).
bool fileWatcherCreate(std::unique_ptr<platform::FileChangeSource> source);
// Ends every watch and clears the slot; does nothing when absent. Not from
// inside a notification of the watcher.
void fileWatcherDestroy();
FileWatcher* fileWatcherGet();

// Starts watching `path`, or adds one reference to its watch. A path that
// cannot be watched is silently left unwatched. Each change then posts `path`
// with the watcher as object and no user information, on the run loop, in the
// order of the changes. Null watcher or empty path: nothing.
void fileWatcherAdd(FileWatcher* watcher, std::string_view path);
// Drops one reference to the watch of `path`; the last one ends it. Unknown
// paths and a null watcher: nothing.
void fileWatcherRemove(FileWatcher* watcher, std::string_view path);

}  // namespace nightjar::monitors
