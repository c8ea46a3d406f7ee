// The daemon's root: every file-system path of the daemon is resolved under
// it, so that tests and the README's demo run touch nothing of the real system.
#pragma once

#include <string>
#include <string_view>

namespace nightjar::platform::linux_adapter {

// $NIGHTJAR_ROOT when set and not empty, else "/".
std::string daemonRoot();

// `absolutePath` (which starts with "/") under `root`: "/tmp/r" + "/var/run/x"
// gives "/tmp/r/var/run/x"; root "/" gives the path unchanged.
std::string underRoot(std::string_view root, std::string_view absolutePath);

}  // namespace nightjar::platform::linux_adapter
