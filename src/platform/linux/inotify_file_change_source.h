// The FileChangeSource over inotify, read from the run loop.
#pragma once

#include <memory>
#include <string>

#include "platform/file_change_source.h"
#include "runloop/run_loop.h"

namespace nightjar::platform::linux_adapter {

// Watched paths are resolved under `root`. Answers nullptr when inotify or its
// run-loop source cannot be set up: nothing is then watched.
std::unique_ptr<FileChangeSource> makeInotifyFileChangeSource(runloop::RunLoop& loop,
                                                              std::string root);

}  // namespace nightjar::platform::linux_adapter
