// The saved state's size, kept within what the preference store writes and
// reads back (PreferencesStore::maxStoredBytes), without serialising the
// whole state for each request.
//
// The state's size is known after each save (the store measured it); what
// changes add until the next save is counted from their own upper-bound
// estimates. A request whose change could pass the limit is refused before
// anything changes, so that no change is acknowledged that a restart would
// not read back. Run-loop thread only.
#pragma once

#include <cstddef>

#include "plist/value.h"

namespace nightjar::state {

// What a change that touches no event's record adds at most (a notify
// period, a delay, a cancel, a reset: dates replaced, a few keys added).
inline constexpr std::size_t kSmallChangeBytes = 1024;

// Upper bound of what storing `event` adds: its serialised size, as held by
// each of the places that keep a copy (the event list, its queue, the pending
// list), each copy with room for the keys those places add.
std::size_t savedEventBytes(const plist::Value& event);

// The state's size as of the last save or read, plus what was admitted since.
std::size_t savedStateProjectedBytes();

// Whether a change adding at most `bytes` keeps the state within the limit
// (less a reserve for what no request adds, such as warning dates); when it
// does, the bytes are counted until the next save. Always true without a
// store.
bool savedStateAdmits(std::size_t bytes);

// The same for a change that replaces every event: `bytes` is what the new
// events add, and what the old ones took no longer counts.
bool savedStateAdmitsReplacement(std::size_t bytes);

// Called after each save: the store now knows the state's size.
void savedStateSizeSaved();

}  // namespace nightjar::state
