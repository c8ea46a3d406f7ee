// The socket's node in the file system: the checks on its folder and the
// listening socket bound at its path.
#pragma once

#include <cstddef>
#include <string>

namespace nightjar::api {

// The longest socket path: it must fit, with its terminator, in 104 bytes.
inline constexpr std::size_t kMaxSocketPathLength = 103;
inline constexpr int kListenBacklog = 5;

struct ListeningSocket {
  int descriptor = -1;  // listening, non-blocking, close-on-exec; -1 on failure
  // On failure: the step that failed ("socket", "path", "parent", "directory",
  // "bind", "listen") and its error number.
  const char* failedStep = nullptr;
  int error = 0;
};

// Prepares the socket's folder and listens at `path`:
// - the path is at most 103 characters and holds two "/" to cut at: the
//   folder is what comes before the last, its parent what comes before the
//   one before;
// - the parent exists, has the sticky bit and belongs to root, so no other
//   user can replace the folder;
// - the folder is made with mode 0755 when missing; a folder that exists is
//   given to root and set to 0755, and must then be a directory (not a
//   symbolic link) of root with exactly those permission bits;
// - whatever is at `path` is removed and the socket bound there with every
//   permission bit (any local user may connect; each request is authorized),
//   then listens with a backlog of 5. Both go through the checked folder's
//   descriptor ("/proc/self/fd/N/name"), so the folder cannot be swapped
//   after the checks; a name too long for that is refused.
// On failure nothing is left open and no node is left at `path`.
ListeningSocket openListeningSocket(const std::string& path);

}  // namespace nightjar::api
