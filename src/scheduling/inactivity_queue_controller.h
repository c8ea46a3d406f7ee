// The "Inactivity" queue controller: performs an "inactive" event once nobody
// has touched keyboard or mouse for its "secondsofinactivity", and again every
// that many seconds for as long as nobody does.
//
// The queue is ascending by period; only its first event is timed. The timer
// is never a periodic tick: it is set to the moment at which the idle time
// would exceed the period (in whole seconds) if the user stayed away; on
// firing, a fresh idle time is asked for and the decision waits for it, so the
// loop never waits on the source. A wake counts as user activity. Run-loop
// thread only.
#pragma once

#include <string_view>

#include "platform/idle_time_source.h"
#include "runloop/clock.h"
#include "runloop/timer.h"
#include "scheduling/queue_controller.h"

namespace nightjar::scheduling {

inline constexpr std::string_view kInactivityControllerName = "Inactivity";
inline constexpr std::string_view kInactiveTriggerType = "inactive";

// The controller, or nullptr when its queue cannot be made. `idle` may be null
// (the idle time is then always 0, so nothing is ever performed); `idle` and
// `clock` must outlive the controller, which is `idle`'s listener. Without a timer from `timers`
// the controller queues events but never performs them.
QueueController* inactivityQueueControllerCreate(platform::IdleTimeSource* idle,
                                                 const runloop::Clock& clock,
                                                 runloop::TimerFactory timers);

}  // namespace nightjar::scheduling
