// The "DateTime" queue controller: takes the enabled "once" and "daily"
// events, keeps them in the order of their next trigger date
// (scheduling/date_time_trigger.h), arms one timer for the earliest, performs
// it when the timer fires and then has the event scheduler queue it afresh,
// so that a daily event moves on to its next day and a once event drops out.
// It keeps the power manager's wake entries and the notification
// controller's pending warnings of its events in step, and carries out that
// controller's "cancel" and "delay".
//
// Clock changes. The timer runs on the wall clock: one that fires before the
// first trigger date (the clock was set back) is moved to that date again. An
// occurrence is performed at most once: while it is being performed the timer
// does not perform again, and for one day after an event was performed for a
// trigger date it is never placed at or before that date again, so a clock
// set back by less than a day cannot hand out the same occurrence twice. A
// clock set back by more than a day is taken as right.
//
// Run-loop thread only.
#pragma once

#include <functional>
#include <string_view>

#include "runloop/clock.h"
#include "runloop/timer.h"
#include "scheduling/queue_controller.h"

namespace nightjar::scheduling {

inline constexpr std::string_view kDateTimeControllerName = "DateTime";

// Makes the C library's local zone the system's current one (for example a
// TimeZoneSource's current()). Run before every calendar computation.
using TimeZoneRefresh = std::function<void()>;

// The controller, or nullptr when its queue cannot be made. It reads
// `clock` (which must outlive it) for every decision, makes its timer with
// `timers`, and calls `refreshZone` (may be empty) before it places an event.
// It observes "externalevents.wake" from the system monitor that exists at
// creation, and registers its cancel and delay handlers with the notification
// controller that exists then. Destroy it with queueControllerDestroy (or by
// tearing down the controller list that owns it).
QueueController* dateTimeQueueControllerCreate(const runloop::Clock& clock,
                                               runloop::TimerFactory timers,
                                               TimeZoneRefresh refreshZone);

}  // namespace nightjar::scheduling
