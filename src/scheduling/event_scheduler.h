// EventScheduler: follows the event list and hands each enabled, valid event
// to the queue controller of its trigger kind, takes it back when it is
// modified, disabled or removed, and hands it in again after it was performed.
// "eventscheduler.enabled" switches all scheduling on and off. Run-loop thread
// only.
#pragma once

#include <string_view>

#include "model/event_list.h"
#include "plist/value.h"
#include "scheduling/queue_controller.h"

namespace nightjar::scheduling {

inline constexpr std::string_view kSchedulerEventsNotification = "scheduler.events";

struct EventScheduler;

// Creates the process-wide scheduler if absent and, when both lists exist,
// observes every notification of the event list.
void eventSchedulerSetUp(model::EventList* events, QueueControllerList* controllers);
// Removes every observation whose observer is the scheduler, then frees it.
void eventSchedulerTearDown();
EventScheduler* eventSchedulerGet();

// True when no scheduler exists.
bool eventSchedulerIsEnabled(const EventScheduler* scheduler);
void eventSchedulerSetEnabled(EventScheduler* scheduler, bool enabled);
// Takes the event back and, when enabled, hands in the event list's copy.
void eventSchedulerReschedule(EventScheduler* scheduler, const plist::Value& uniqueId);
// Empties every controller, then (when enabled) hands in every event.
void eventSchedulerResync(EventScheduler* scheduler);

// The handler of "externalevents.timezone": resyncs `scheduler` (the
// observer) when `name` is that notification's.
void eventSchedulerTimeZoneChanged(EventScheduler* scheduler, std::string_view name);
// Registers that handler on the local center for "externalevents.timezone"
// from `systemMonitor`, with the scheduler as observer, so that tear-down
// removes it. Does nothing without a scheduler.
void eventSchedulerObserveTimeZone(EventScheduler* scheduler, const void* systemMonitor);

}  // namespace nightjar::scheduling
