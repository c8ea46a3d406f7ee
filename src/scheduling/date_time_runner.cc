#include "scheduling/date_time_runner.h"

#include <cmath>

#include "logging/logging.h"
#include "model/event.h"
#include "scheduling/date_time_trigger.h"
#include "scheduling/event_action.h"
#include "scheduling/event_scheduler.h"
#include "scheduling/power_events.h"

namespace nightjar::scheduling {
namespace {

using plist::AbsoluteTime;
using plist::Value;

std::optional<AbsoluteTime> triggerDateOf(const Value& event) {
  return event.get(kTriggerDateKey).asDate();
}

bool remembered(AbsoluteTime performed, AbsoluteTime now) {
  return std::fabs(performed - now) <= kPerformedMemory;
}

void remember(DateTimeState& state, const Value& uniqueId, AbsoluteTime date, AbsoluteTime now) {
  std::erase_if(state.performed,
                [now](const auto& entry) { return !remembered(entry.second, now); });
  if (const std::string* id = uniqueId.asString())
    state.performed[*id] = date;
}

// The occurrence is over: the scheduler queues the event afresh from the
// event list (a daily event on its next day, a once event dropped). Without a
// scheduler nothing could queue it again, and the occurrence just leaves.
void finishOccurrence(DateTimeState& state, const Value& uniqueId) {
  if (EventScheduler* scheduler = eventSchedulerGet()) {
    eventSchedulerReschedule(scheduler, uniqueId);
  } else {
    queueControllerRemove(state.controller, uniqueId);
  }
  dateTimeArmTimer(state);
}

// Rescheduling waits for the perform's completion, so the queue keeps the
// occurrence (and the timer stays quiet) until "event.didperform" is out.
void perform(DateTimeState& state, const Value& event, AbsoluteTime date, AbsoluteTime now) {
  const Value uniqueId = model::eventUniqueID(event);
  // Remembered for a day, so that a clock set back cannot perform it twice.
  remember(state, uniqueId, date, now);
  state.performing = uniqueId;
  std::weak_ptr<const bool> alive = state.alive;
  DateTimeState* raw = &state;
  eventActionPerform(event, [alive, raw, uniqueId] {
    if (alive.expired())
      return;
    raw->performing.reset();
    finishOccurrence(*raw, uniqueId);
  });
}

// The queued events whose trigger date lies before `now`, in queue order,
// leaving out the one being performed.
plist::Array passedEvents(const DateTimeState& state, AbsoluteTime now) {
  plist::Array passed;
  const Value queued = queueControllerCopyEvents(state.controller);
  for (std::size_t i = 0; i < queued.count(); ++i) {
    const Value event = queued.at(i);
    const std::optional<AbsoluteTime> date = triggerDateOf(event);
    const Value uniqueId = model::eventUniqueID(event);
    if (!date || !(*date < now) || !uniqueId)
      break;
    if (state.performing != uniqueId)
      passed.push_back(event);
  }
  return passed;
}

}  // namespace

void dateTimeArmTimer(DateTimeState& state) {
  runloop::Timer* timer = queueTimerGetTimer(state.holder);
  if (timer == nullptr)
    return;
  const Value first = queueControllerFirstEvent(state.controller);
  if (const std::optional<AbsoluteTime> date = triggerDateOf(first)) {
    timer->setNextFireDate(*date);
    powerEventsScheduleForEvent(first, *date);
  } else {
    queueTimerPark(state.holder);
  }
}

void dateTimeTimerFired(QueueTimer* holder) {
  auto* state =
      static_cast<DateTimeState*>(queueControllerContext(queueTimerGetController(holder)));
  // While an occurrence is being performed its completion re-arms the timer.
  if (state == nullptr || state->holder != holder || state->performing)
    return;
  const Value first = queueControllerFirstEvent(state->controller);
  const std::optional<AbsoluteTime> date = triggerDateOf(first);
  if (!date)
    return;
  const AbsoluteTime now = state->clock.now();
  if (now > *date) {
    perform(*state, first, *date, now);
  } else {
    // Early: the wall clock was set back since the timer was armed.
    queueTimerGetTimer(holder)->setNextFireDate(*date);
  }
}

void dateTimeReschedulePassed(DateTimeState& state) {
  const AbsoluteTime now = state.clock.now();
  if (EventScheduler* scheduler = eventSchedulerGet()) {
    for (const Value& event : passedEvents(state, now)) {
      logging::logMessage(LOG_INFO, "Rescheduling event: %@.", event.get(model::kNameKey));
      eventSchedulerReschedule(scheduler, model::eventUniqueID(event));
    }
  }
  dateTimeArmTimer(state);
}

std::optional<AbsoluteTime> dateTimeLastPerformed(const DateTimeState& state, const Value& event,
                                                  AbsoluteTime now) {
  const std::string* id = model::eventUniqueID(event).asString();
  if (id == nullptr)
    return std::nullopt;
  const auto found = state.performed.find(*id);
  if (found == state.performed.end() || !remembered(found->second, now))
    return std::nullopt;
  return found->second;
}

}  // namespace nightjar::scheduling
