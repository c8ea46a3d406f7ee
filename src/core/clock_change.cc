#include "core/clock_change.h"

#include <string>

#include "logging/logging.h"
#include "runloop/notification_center.h"
#include "runloop/run_loop.h"

namespace nightjar::core {

void followClockChanges(scheduling::EventScheduler* scheduler, const void* loop) {
  if (scheduler == nullptr)
    return;
  runloop::localCenter().addObserver(
      scheduler,
      [scheduler](std::string_view, const void*, const plist::Value&) {
        logging::logMessage(LOG_INFO, "The system clock was set; rescheduling events.");
        scheduling::eventSchedulerResync(scheduler);
      },
      std::string(runloop::kClockChangedNotification), loop);
}

}  // namespace nightjar::core
