// The largest file the daemon writes and reads back: the preference store
// (which holds the saved state) and the wake-entry list. The writer refuses
// anything larger and the reader takes nothing larger, so a file the daemon
// wrote is always read back whole.
#pragma once

#include <cstddef>

namespace nightjar::platform {

// 10 000 daily events with 255-character names and identifiers, every one
// queued and warned, save to 38.9 MB (three copies of each event: the list,
// its queue and the pending list). 64 MiB (67.1 MB) leaves over two thirds as
// much again for events with more members, while a file far larger than any
// state the daemon saves is still refused unread.
inline constexpr std::size_t kMaxStoredFileBytes = 64 * 1024 * 1024;

}  // namespace nightjar::platform
