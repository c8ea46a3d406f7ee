#include "state/saved_state.h"

#include "model/event_list.h"
#include "notifications/notification_controller.h"
#include "persistence/preferences.h"
#include "scheduling/queue_controller.h"
#include "state/saved_state_size.h"

namespace nightjar::state {

namespace {

using plist::Value;

bool hasAllKeys(const Value& state) {
  return state.asDictionary() != nullptr && !state.get(kEventsKey).isNone() &&
         !state.get(kQueuesKey).isNone() && !state.get(kNotificationsKey).isNone();
}

}  // namespace

Value persistenceCopyState() {
  Value state = Value::dictionary({});
  if (const model::EventList* events = model::eventListGet(); events != nullptr)
    state = state.with(kEventsKey, model::eventListCopyPublic(events));
  if (scheduling::QueueControllerList* queues = scheduling::queueControllerListGet();
      queues != nullptr)
    state = state.with(kQueuesKey, scheduling::queueControllerListCopyQueues(queues));
  if (const notifications::NotificationController* controller =
          notifications::notificationControllerGet();
      controller != nullptr)
    state =
        state.with(kNotificationsKey, notifications::notificationControllerCopyState(controller));
  return state;
}

bool persistenceSave() {
  return persistenceSave(persistenceCopyState());
}

bool persistenceSave(const Value& state) {
  const bool saved = persistence::preferencesSetValue(persistence::kEngineKey, state,
                                                      persistence::engineDefault());
  savedStateSizeSaved();
  return saved;
}

bool persistenceApplyState(const Value& state) {
  if (!hasAllKeys(state))
    return false;
  model::EventList* events = model::eventListGet();
  scheduling::QueueControllerList* queues = scheduling::queueControllerListGet();
  notifications::NotificationController* controller = notifications::notificationControllerGet();
  if (events == nullptr || queues == nullptr || controller == nullptr)
    return false;
  // A member of the wrong type would empty its module; it is skipped instead.
  if (const Value saved = state.get(kEventsKey); saved.asArray() != nullptr)
    model::eventListReplaceAll(events, saved);
  if (const Value saved = state.get(kNotificationsKey); saved.asArray() != nullptr)
    notifications::notificationControllerApplyState(controller, saved);
  if (const Value saved = state.get(kQueuesKey); saved.asDictionary() != nullptr)
    scheduling::queueControllerListRestoreQueues(queues, saved);
  return true;
}

Value persistenceRestore() {
  const Value saved =
      persistence::preferencesCopyValue(persistence::kEngineKey, persistence::engineDefault());
  if (saved != persistence::engineDefault() && persistenceApplyState(saved))
    return saved;
  return {};
}

}  // namespace nightjar::state
