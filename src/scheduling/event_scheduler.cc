// EventScheduler: the bridge from the event list to the queue controllers.
#include "scheduling/event_scheduler.h"

#include <memory>
#include <optional>
#include <string>

#include "logging/logging.h"
#include "model/event.h"
#include "model/validation.h"
#include "monitors/system_monitor.h"
#include "persistence/preferences.h"
#include "runloop/notification_center.h"
#include "scheduling/power_events.h"

namespace nightjar::scheduling {

struct EventScheduler {
  model::EventList* events = nullptr;          // not owned
  QueueControllerList* controllers = nullptr;  // not owned
  bool enabled = persistence::kSchedulerEnabledDefault;
};

namespace {

std::unique_ptr<EventScheduler>& schedulerSlot() {
  static std::unique_ptr<EventScheduler> slot;
  return slot;
}

// Queues an enabled event with the controller of its trigger type, unless a
// controller holds it already (that copy is left as it is).
void hand(QueueControllerList* controllers, const plist::Value& uniqueId,
          const plist::Value& event) {
  if (!uniqueId || !model::eventIsEnabled(event))
    return;
  if (queueControllerListFindHolding(controllers, uniqueId) != nullptr)
    return;
  if (QueueController* controller = queueControllerListFindForEvent(controllers, event))
    queueControllerStore(controller, event);
}

// Through the holding controller's willRemove, which cancels what it made.
void takeBack(QueueControllerList* controllers, const plist::Value& uniqueId) {
  if (QueueController* holding = queueControllerListFindHolding(controllers, uniqueId))
    queueControllerRemove(holding, uniqueId);
}

void modify(const EventScheduler& scheduler, const plist::Value& uniqueId,
            const plist::Value& event) {
  QueueController* target = queueControllerListFindForEvent(scheduler.controllers, event);
  if (target == nullptr)
    return;
  QueueController* holding = queueControllerListFindHolding(scheduler.controllers, uniqueId);
  if (model::eventIsEnabled(event)) {
    if (holding != nullptr && holding != target)
      queueControllerRemove(holding, uniqueId);
    queueControllerStore(target, event);
  } else if (holding != nullptr) {
    queueControllerRemove(holding, uniqueId);
  }
}

bool isValid(const plist::Value& event) {
  if (!model::validateEvent(event))
    return true;
  logging::logMessage(LOG_ERR, "Dropped invalid event within scheduler.");
  logging::logMessage(LOG_DEBUG, "Invalid event: %@", event);
  return false;
}

void eventsChanged(EventScheduler& scheduler, std::string_view name, const void* object,
                   const plist::Value& userInfo) {
  if (object != scheduler.events || name.empty() || !userInfo)
    return;
  const plist::Value uniqueId = model::eventUniqueID(userInfo);
  if (name == model::kEventsAddNotification) {
    if (isValid(userInfo) && scheduler.enabled)
      hand(scheduler.controllers, uniqueId, userInfo);
  } else if (name == model::kEventsModifyNotification) {
    if (isValid(userInfo) && scheduler.enabled)
      modify(scheduler, uniqueId, userInfo);
  } else if (name == model::kEventsRemoveNotification) {
    takeBack(scheduler.controllers, uniqueId);
  }
  runloop::localCenter().post(kSchedulerEventsNotification, &scheduler);
}

}  // namespace

void eventSchedulerSetUp(model::EventList* events, QueueControllerList* controllers) {
  if (schedulerSlot() != nullptr)
    return;
  auto scheduler = std::make_unique<EventScheduler>();
  scheduler->events = events;
  scheduler->controllers = controllers;
  scheduler->enabled = persistence::preferencesGetBoolean(persistence::kSchedulerEnabledKey,
                                                          persistence::kSchedulerEnabledDefault);
  if (events != nullptr && controllers != nullptr) {
    EventScheduler* observer = scheduler.get();
    runloop::localCenter().addObserver(
        observer,
        [observer](std::string_view name, const void* object, const plist::Value& userInfo) {
          eventsChanged(*observer, name, object, userInfo);
        },
        std::nullopt, events);
  }
  schedulerSlot() = std::move(scheduler);
}

void eventSchedulerTearDown() {
  std::unique_ptr<EventScheduler> scheduler = std::move(schedulerSlot());
  if (scheduler != nullptr)
    runloop::localCenter().removeObserver(scheduler.get());
}

EventScheduler* eventSchedulerGet() {
  return schedulerSlot().get();
}

bool eventSchedulerIsEnabled(const EventScheduler* scheduler) {
  return scheduler == nullptr || scheduler->enabled;
}

// The settings pattern: a value forced by an administrator is adopted and
// nothing else happens.
void eventSchedulerSetEnabled(EventScheduler* scheduler, bool enabled) {
  if (scheduler == nullptr || scheduler->enabled == enabled)
    return;
  scheduler->enabled = persistence::preferencesSetAndReadBackBoolean(
      persistence::kSchedulerEnabledKey, enabled, persistence::kSchedulerEnabledDefault);
  if (scheduler->enabled != enabled)
    return;
  if (enabled) {
    eventSchedulerResync(scheduler);
  } else {
    queueControllerListRemoveAll(scheduler->controllers);
    powerEventsPurgeAll();
  }
}

void eventSchedulerReschedule(EventScheduler* scheduler, const plist::Value& uniqueId) {
  if (scheduler == nullptr)
    return;
  // Held here: the caller's identifier may live inside a record released below.
  const plist::Value id = uniqueId;
  takeBack(scheduler->controllers, id);
  if (scheduler->enabled) {
    const plist::Value event = model::eventListFind(scheduler->events, id);
    if (event)
      hand(scheduler->controllers, id, event);
  }
}

void eventSchedulerResync(EventScheduler* scheduler) {
  if (scheduler == nullptr)
    return;
  queueControllerListRemoveAll(scheduler->controllers);
  if (scheduler->events == nullptr || !scheduler->enabled)
    return;
  // A copy of the members: handing an event must not depend on the list
  // staying put while the controllers run.
  const plist::Array events = scheduler->events->events().members();
  for (const plist::Value& event : events)
    hand(scheduler->controllers, model::eventUniqueID(event), event);
}

void eventSchedulerTimeZoneChanged(EventScheduler* scheduler, std::string_view name) {
  if (scheduler != nullptr && name == monitors::kTimeZoneNotification)
    eventSchedulerResync(scheduler);
}

void eventSchedulerObserveTimeZone(EventScheduler* scheduler, const void* systemMonitor) {
  if (scheduler == nullptr)
    return;
  runloop::localCenter().addObserver(
      scheduler,
      [scheduler](std::string_view name, const void*, const plist::Value&) {
        eventSchedulerTimeZoneChanged(scheduler, name);
      },
      std::string(monitors::kTimeZoneNotification), systemMonitor);
}

}  // namespace nightjar::scheduling
