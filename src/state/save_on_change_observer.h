// SaveOnChangeObserver: saves the state once per run-loop pass in which
// anything was posted on the local notification center, in the pass's
// SaveState stage (after the wake entries, before the held replies leave),
// and once more when the loop exits.
//
// Durability hook: `onDirty` runs on every local notification (the daemon
// holds the socket's replies there, until the end of the pass). A failed save
// keeps the state dirty, so it is tried again at every later pass; it is
// logged at error level once per fault, and once more only after a save has
// succeeded. One per process, run-loop thread only.
#pragma once

#include <functional>

#include "plist/value.h"
#include "runloop/run_loop.h"

namespace nightjar::state {

struct SaveOnChangeHooks {
  std::function<void()> onDirty;
};

struct SaveOnChangeObserver;

// Creates the process-wide observer on `loop` unless there is one; answers
// false (and creates nothing) when `loop` is null.
bool saveOnChangeObserverCreate(runloop::RunLoop* loop, SaveOnChangeHooks hooks = {});
// Stops observing the center and the loop; does nothing without an observer.
void saveOnChangeObserverDestroy();
SaveOnChangeObserver* saveOnChangeObserverGet();

// Takes `stored` as what storage holds already: a start from the state read
// at start-up, so that a pass whose state still equals it writes nothing.
// Does nothing without an observer or when `stored` is none.
void saveOnChangeObserverStartFrom(SaveOnChangeObserver* observer, plist::Value stored);

// What the run-loop observer does at the end of a pass and at exit: saves when
// dirty. Exposed so that tests can drive passes by hand.
void saveOnChangeObserverRunPass(SaveOnChangeObserver* observer);
bool saveOnChangeObserverIsDirty(const SaveOnChangeObserver* observer);

}  // namespace nightjar::state
