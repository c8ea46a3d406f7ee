// The "DateTime" controller: its table of callbacks, creation and
// destruction, and the notification controller's cancel and delay.
#include "scheduling/date_time_queue_controller.h"

#include <cmath>
#include <memory>
#include <utility>

#include "model/event.h"
#include "monitors/system_monitor.h"
#include "notifications/notification_controller.h"
#include "runloop/notification_center.h"
#include "scheduling/date_time_runner.h"
#include "scheduling/date_time_trigger.h"
#include "scheduling/power_events.h"

namespace nightjar::scheduling {
namespace {

using plist::AbsoluteTime;
using plist::Value;

// Action types whose wake entry is released when the controller goes away.
constexpr std::string_view kReleasedAtShutdown[] = {"shutdown"};

DateTimeState* stateOf(void* context) {
  return static_cast<DateTimeState*>(context);
}

std::optional<AbsoluteTime> triggerDateOf(const Value& event) {
  return event.get(kTriggerDateKey).asDate();
}

bool accepts(QueueController*, std::string_view type, void*) {
  return type == "once" || type == "daily";
}

// Computes and stores the trigger date, then makes the wake entries and the
// pending warning for it. Refuses an event with no future trigger date.
bool willAdd(QueueController*, Value& copy, void* context) {
  DateTimeState* state = stateOf(context);
  if (state->refreshZone)
    state->refreshZone();
  const AbsoluteTime now = state->clock.now();
  const std::optional<AbsoluteTime> date =
      dateTimeTriggerDate(copy, now, dateTimeLastPerformed(*state, copy, now));
  if (!date)
    return false;
  copy = copy.with(kTriggerDateKey, Value::date(*date));
  powerEventsScheduleForEvent(copy, *date);
  if (notifications::NotificationController* warnings = notifications::notificationControllerGet())
    notifications::notificationControllerAddPending(warnings, copy, *date);
  return true;
}

// Always lets the event go, after cancelling what was made for its date.
bool willRemove(QueueController*, const Value& queued, void*) {
  if (const std::optional<AbsoluteTime> date = triggerDateOf(queued))
    powerEventsCancelForEvent(queued, *date);
  notifications::NotificationController* warnings = notifications::notificationControllerGet();
  const Value uniqueId = model::eventUniqueID(queued);
  if (warnings != nullptr && uniqueId)
    notifications::notificationControllerRemovePending(warnings, uniqueId);
  return true;
}

bool willModify(QueueController* controller, const Value& queued, Value& copy, void* context) {
  willRemove(controller, queued, context);
  return willAdd(controller, copy, context);
}

void didChange(QueueController*, void* context) {
  dateTimeArmTimer(*stateOf(context));
}

void didReset(QueueController*, void* context) {
  dateTimeReschedulePassed(*stateOf(context));
}

std::weak_ordering byTriggerDate(const Value& a, const Value& b, void*) {
  return model::compareEventsByKey(a, b, kTriggerDateKey);
}

// The handlers work on the notification controller's copy of the event: it
// carries this controller's keys and the warning's own ("metadatatriggerdate",
// "metadatanotified"), which the stored copy keeps for the perform.

// A cancelled "once" event leaves the queue (it stays in the event list); a
// cancelled "daily" occurrence is skipped in favour of the next one.
void cancelHandler(notifications::NotificationController*, const Value& event, void* context) {
  const DateTimeState* state = stateOf(context);
  const Value uniqueId = model::eventUniqueID(event);
  const std::string* type = model::eventTriggerType(event).asString();
  if (!uniqueId || type == nullptr)
    return;
  if (*type == "once") {
    queueControllerRemove(state->controller, uniqueId);
  } else if (*type == "daily") {
    const std::optional<AbsoluteTime> date = triggerDateOf(event);
    if (!date)
      return;
    queueControllerStore(
        state->controller,
        event.with(kTriggerConstraintKey, Value::date(*date + kCancelConstraintOffset)));
  }
}

// Counted from the current trigger date, which after a first delay is that
// delay's date: successive delays add up.
void delayHandler(notifications::NotificationController*, const Value& event, double seconds,
                  void* context) {
  const DateTimeState* state = stateOf(context);
  const std::optional<AbsoluteTime> date = triggerDateOf(event);
  if (!model::eventUniqueID(event) || !date || !(seconds > 0) || !std::isfinite(seconds))
    return;
  queueControllerStore(state->controller,
                       event.with(kTriggerDelayKey, Value::date(*date + seconds)));
}

void* create(QueueController* controller) {
  DateTimeState* state = stateOf(queueControllerContext(controller));
  state->controller = controller;
  state->holder = queueTimerCreate(controller, dateTimeTimerFired, state->timers);
  runloop::localCenter().addObserver(
      state,
      [state](std::string_view, const void*, const Value&) { dateTimeReschedulePassed(*state); },
      std::string(monitors::kWakeNotification), monitors::systemMonitorGet());
  notifications::NotificationController* warnings = notifications::notificationControllerGet();
  if (state->holder != nullptr && warnings != nullptr)
    notifications::notificationControllerRegisterHandlers(warnings,
                                                          {cancelHandler, delayHandler, state});
  return state;
}

// The entries of queued events stay with the power manager, so that the
// machine wakes for them while the daemon is down; only a first event that
// shuts the machine down has its wake entry released.
void releaseShutdownEntry(const DateTimeState& state) {
  const Value first = queueControllerFirstEvent(state.controller);
  const std::string* action = model::eventActionType(first).asString();
  const std::optional<AbsoluteTime> date = triggerDateOf(first);
  if (action == nullptr || !date)
    return;
  for (std::string_view released : kReleasedAtShutdown) {
    if (*action == released)
      powerEventsCancelForEvent(first, *date);
  }
}

void destroy(QueueController*, void* context) {
  DateTimeState* state = stateOf(context);
  releaseShutdownEntry(*state);
  runloop::localCenter().removeObserver(state);
  if (notifications::NotificationController* warnings = notifications::notificationControllerGet())
    notifications::notificationControllerRegisterHandlers(warnings, {});
  queueTimerDestroy(state->holder);
  delete state;
}

}  // namespace

QueueController* dateTimeQueueControllerCreate(const runloop::Clock& clock,
                                               runloop::TimerFactory timers,
                                               TimeZoneRefresh refreshZone) {
  auto state = std::make_unique<DateTimeState>(clock, std::move(timers), std::move(refreshZone));
  QueueControllerCallbacks callbacks;
  callbacks.acceptsTriggerType = accepts;
  callbacks.create = create;
  callbacks.destroy = destroy;
  callbacks.willAdd = willAdd;
  callbacks.willModify = willModify;
  callbacks.willRemove = willRemove;
  callbacks.didChange = didChange;
  callbacks.didReset = didReset;
  callbacks.initialContext = state.get();
  QueueController* controller = queueControllerCreate(std::string(kDateTimeControllerName),
                                                      callbacks, {byTriggerDate, nullptr});
  // From here the controller owns the state: its destroy callback frees it.
  if (controller != nullptr)
    state.release();
  return controller;
}

}  // namespace nightjar::scheduling
