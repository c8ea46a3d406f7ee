// The state of the "DateTime" controller and the part of it that runs events:
// arming the timer, performing the event that is due, rescheduling events
// whose date passed, and remembering performed occurrences. Private to the
// controller (scheduling/date_time_queue_controller.h). Run-loop thread only.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include "plist/value.h"
#include "runloop/clock.h"
#include "runloop/timer.h"
#include "scheduling/date_time_queue_controller.h"
#include "scheduling/queue_controller.h"

namespace nightjar::scheduling {

// How long a performed occurrence is remembered either side of the clock: a
// clock set back by more than this is taken as right.
inline constexpr double kPerformedMemory = 86400;

// The controller's context.
struct DateTimeState {
  DateTimeState(const runloop::Clock& c, runloop::TimerFactory t, TimeZoneRefresh r)
      : clock(c), timers(std::move(t)), refreshZone(std::move(r)) {}

  const runloop::Clock& clock;
  runloop::TimerFactory timers;
  TimeZoneRefresh refreshZone;
  QueueController* controller = nullptr;  // owns this state
  QueueTimer* holder = nullptr;           // null when no timer could be made
  // The "uniqueid" of the event being performed, from the perform's start to
  // its completion.
  std::optional<plist::Value> performing;
  // "uniqueid" → the trigger date it was last performed for; entries further
  // than kPerformedMemory from the clock are dropped when one is added.
  std::unordered_map<std::string, plist::AbsoluteTime> performed;
  // A perform's completion holds this weakly: a controller destroyed before
  // its perform ended is left alone.
  std::shared_ptr<const bool> alive = std::make_shared<const bool>(true);
};

// Sets the timer to the first event's trigger date (and makes that event's
// wake entries again), or parks it when no event is queued.
void dateTimeArmTimer(DateTimeState& state);
// The timer's callout: performs the first event when its date has passed,
// else moves the timer to that date.
void dateTimeTimerFired(QueueTimer* holder);
// Hands every event whose trigger date has passed back to the event
// scheduler without performing it ("Rescheduling event: %@."), then arms the
// timer. Run after the queue was restored and on "externalevents.wake".
void dateTimeReschedulePassed(DateTimeState& state);
// The trigger date `event` was last performed for, while it lies within
// kPerformedMemory of `now`.
std::optional<plist::AbsoluteTime> dateTimeLastPerformed(const DateTimeState& state,
                                                         const plist::Value& event,
                                                         plist::AbsoluteTime now);

}  // namespace nightjar::scheduling
