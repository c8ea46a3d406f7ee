// Performing a due event: announce it, pause two seconds (optionally with a
// notice on the console), carry the action out, announce it again.
//
// Performing is a short sequence on the run loop, never a sleep: while it
// pauses, every other source (clients, signals, the bus, timers) is served.
// Performs never interleave: one asked for while another is under way starts
// when that one has ended. Run-loop thread only.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "platform/command_runner.h"
#include "platform/console_notice.h"
#include "platform/distributed_center.h"
#include "platform/system_sleep.h"
#include "plist/value.h"
#include "runloop/clock.h"
#include "runloop/timer.h"

namespace nightjar::scheduling {

inline constexpr std::string_view kWillPerformNotification = "event.willperform";
inline constexpr std::string_view kDidPerformNotification = "event.didperform";

// Predicates on an event's "action" → "type"; every one accepts none.
plist::Value eventActionTypeOf(const plist::Value& event);
bool eventActionIsWakeKind(const plist::Value& event);
// 120 s for a wake kind, else 0.
double eventActionLeadTime(const plist::Value& event);
// False for "start up or wake", "sleep" and "wake"; true otherwise, also when
// the event or its action type is missing.
bool eventActionNeedsPreWake(const plist::Value& event);
// "wakepoweron" for "start up or wake", "wake" for "wake", nullopt otherwise.
std::optional<std::string_view> eventActionPowerEventType(const plist::Value& event);

// What performing needs. Each may be null: that action then does nothing.
struct EventActionPorts {
  platform::DistributedCenter* broadcasts = nullptr;
  platform::SystemSleep* sleep = nullptr;
  platform::CommandRunner* commands = nullptr;
  platform::ConsoleNotice* notice = nullptr;
  runloop::TimerFactory timers;           // for the pause; without it there is no pause
  const runloop::Clock* clock = nullptr;  // dates the pause; null: the system clock
};

// Fills the process-wide slot (the caller keeps the ports alive until
// eventActionTearDown); does nothing when it is full.
void eventActionSetUp(EventActionPorts ports);
// Ends a perform under way at once (neither its completion nor an idle
// callback is called) and clears the slot.
void eventActionTearDown();

// Starts performing `event` (the controller's copy, private keys included) and
// calls `completion` (may be empty) once "event.didperform" has gone out and
// the activity count is lowered again; for a wake kind that is at once. A
// none event: nothing, and no completion. Without set-up the completion is
// called at once.
void eventActionPerform(const plist::Value& event, std::function<void()> completion);
// True while a perform is under way or waiting its turn.
bool eventActionBusy();
// Calls `callback` once no perform is under way or waiting: at once when none
// is, else right after the last completion. Callbacks run in order of asking;
// one that starts a perform leaves the rest for the end of that perform.
void eventActionWhenIdle(std::function<void()> callback);

}  // namespace nightjar::scheduling
