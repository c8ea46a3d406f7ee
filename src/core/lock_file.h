// The daemon's pid file and detaching from the terminal.
#pragma once

#include <string>

namespace nightjar::core {

// Writes the process id in decimal, nothing else, into `path` (created or
// truncated, mode 0644 whatever the umask; the umask is left as it was).
// Answers false, after logging why, when the file cannot be written.
bool advertise(const std::string& path);

// Removes the pid file; a failure is logged.
void stopAdvertising(const std::string& path);

// Forks; the parent exits 0, a fork failure exits 1 with a line on stderr. The
// child starts a new session, closes every descriptor, sets umask 027 and
// changes to `workingDirectory`. Returns only in the child.
void daemonise(const std::string& workingDirectory);

}  // namespace nightjar::core
