// SaveOnChangeObserver: saves the state once per run-loop pass in which
// anything was posted on the local notification center, before the loop
// sleeps, and once more when the loop exits.
//
// Durability hooks: `onDirty` runs on every local notification (main holds the
// socket's replies there); `onSaved` runs after each save attempt of a dirty
// state, successful or not (main releases the replies there: a change that
// could not be written is still in effect in memory). A failed save keeps the
// state dirty, so it is tried again at every later pass; it is logged at error
// level once per fault, and once more only after a save has succeeded.
// One per process, run-loop thread only.
#pragma once

#include <functional>

#include "runloop/run_loop.h"

namespace nightjar::state {

struct SaveOnChangeHooks {
  std::function<void()> onDirty;
  std::function<void()> onSaved;
};

struct SaveOnChangeObserver;

// Creates the process-wide observer on `loop` unless there is one; answers
// false (and creates nothing) when the run-loop observer cannot be added or
// `loop` is null.
bool saveOnChangeObserverCreate(runloop::RunLoop* loop, SaveOnChangeHooks hooks = {});
// Stops observing the center and the loop; does nothing without an observer.
void saveOnChangeObserverDestroy();
SaveOnChangeObserver* saveOnChangeObserverGet();

// What the run-loop observer does at before-waiting and exit: saves when
// dirty. Exposed so that tests can drive passes by hand.
void saveOnChangeObserverRunPass(SaveOnChangeObserver* observer);
bool saveOnChangeObserverIsDirty(const SaveOnChangeObserver* observer);

}  // namespace nightjar::state
