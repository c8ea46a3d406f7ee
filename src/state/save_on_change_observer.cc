#include "state/save_on_change_observer.h"

#include <syslog.h>

#include <memory>
#include <utility>

#include "logging/logging.h"
#include "runloop/notification_center.h"
#include "state/saved_state.h"
#include "state/saved_state_size.h"

namespace nightjar::state {

struct SaveOnChangeObserver {
  bool dirty = false;
  std::unique_ptr<runloop::ObserverHandle> runLoopObserver;
  SaveOnChangeHooks hooks;
  bool failing = false;  // the last save failed and was logged
  // The state the last successful save wrote, or the one read at start-up,
  // or the last equal state built since. Its members are shared with the
  // modules, so comparing a new state with it costs little unless it changed.
  plist::Value saved;
};

namespace {
std::unique_ptr<SaveOnChangeObserver> gObserver;

void markDirty(SaveOnChangeObserver* observer) {
  observer->dirty = true;
  if (observer->hooks.onDirty)
    observer->hooks.onDirty();
}
}  // namespace

bool saveOnChangeObserverCreate(runloop::RunLoop* loop, SaveOnChangeHooks hooks) {
  if (gObserver)
    return true;
  if (loop == nullptr)
    return false;
  auto observer = std::make_unique<SaveOnChangeObserver>();
  observer->hooks = std::move(hooks);
  SaveOnChangeObserver* raw = observer.get();
  observer->runLoopObserver =
      loop->addObserver(runloop::PassStage::SaveState,
                        [raw](runloop::Activity) { saveOnChangeObserverRunPass(raw); });
  runloop::localCenter().addObserver(
      raw, [raw](std::string_view, const void*, const plist::Value&) { markDirty(raw); },
      std::nullopt, nullptr);
  gObserver = std::move(observer);
  return true;
}

void saveOnChangeObserverDestroy() {
  if (!gObserver)
    return;
  runloop::localCenter().removeObserver(gObserver.get());
  gObserver.reset();
}

SaveOnChangeObserver* saveOnChangeObserverGet() {
  return gObserver.get();
}

void saveOnChangeObserverStartFrom(SaveOnChangeObserver* observer, plist::Value stored) {
  if (observer != nullptr && !stored.isNone())
    observer->saved = std::move(stored);
}

void saveOnChangeObserverRunPass(SaveOnChangeObserver* observer) {
  if (observer == nullptr || !observer->dirty)
    return;
  plist::Value state = persistenceCopyState();
  // A pass that changed nothing (a request that found everything as asked)
  // writes nothing: no write, no sync.
  if (state == observer->saved) {
    // Kept instead of the equal one: it shares its members with the modules,
    // so later comparisons stay cheap.
    observer->saved = std::move(state);
    observer->dirty = false;
    savedStateSizeSaved();
    return;
  }
  if (persistenceSave(state)) {
    observer->saved = std::move(state);
    observer->dirty = false;
    observer->failing = false;
  } else if (!observer->failing) {
    // Storage still holds the last good state; the next pass tries again.
    // Logged on purpose: acknowledged changes are then only in memory.
    logging::logMessage(
        LOG_ERR, "Failed to save the state; the last saved state is kept and the save is retried.");
    observer->failing = true;
  }
}

bool saveOnChangeObserverIsDirty(const SaveOnChangeObserver* observer) {
  return observer != nullptr && observer->dirty;
}

}  // namespace nightjar::state
