// Small descriptor operations shared by the signal socket, the API server and
// the daemon's start. Each answers 0 or an error number; none logs.
#pragma once

#include <cstddef>

namespace nightjar::runloop {

// Ignores SIGPIPE for the process, keeping its mask and flags.
int ignoreSIGPIPE();

// Ignores SIGXFSZ for the process: a write past the file-size limit then fails
// with EFBIG, which a save survives, instead of killing the daemon.
int ignoreSIGXFSZ();

// Raises the soft limit on open descriptors to the hard limit, so that the
// connections the API server allows leave room for the daemon's own files.
int raiseDescriptorLimit();

// Adds O_NONBLOCK to the descriptor's status flags.
int setNonBlocking(int fd);

// Reads exactly `count` bytes, retrying on EINTR. End of file before the count
// is complete answers EPIPE. `bytesRead`, when given, receives what arrived.
int readFully(int fd, void* buffer, std::size_t count, std::size_t* bytesRead = nullptr);

}  // namespace nightjar::runloop
