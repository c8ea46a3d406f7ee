// The daemon's reaction to a step of the wall clock.
#pragma once

#include "scheduling/event_scheduler.h"

namespace nightjar::core {

// Observes runloop::kClockChangedNotification from `loop` (the run loop, or
// any object a test posts it with) on the local center: each one logs one
// line and resyncs `scheduler`, as a change of the system time zone does, so
// every controller computes its dates, timers and wake entries again from
// the new clock. The observation is the scheduler's: eventSchedulerTearDown
// removes it. Does nothing without a scheduler.
void followClockChanges(scheduling::EventScheduler* scheduler, const void* loop);

}  // namespace nightjar::core
