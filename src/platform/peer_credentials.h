// Who is at the other end of a local socket, as the kernel recorded it when the
// peer connected (SO_PEERCRED): not anything the peer said about itself.
#pragma once

#include <sys/types.h>

namespace nightjar::platform {

// The defaults name nobody: no process has pid 0, and (uid_t)-1 is no user,
// so a record that was never filled in can never pass for root.
struct PeerCredentials {
  pid_t pid = 0;
  uid_t uid = static_cast<uid_t>(-1);
  gid_t gid = static_cast<gid_t>(-1);
};

}  // namespace nightjar::platform
