// Performing an event, as a short sequence of steps on the run loop: announce,
// pause on a one-shot timer, carry out, announce again, complete. Nothing here
// sleeps, so clients, signals and the bus are served during the pause.
#include "scheduling/event_action.h"

#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "logging/logging.h"
#include "model/event_kinds.h"
#include "monitors/system_monitor.h"
#include "persistence/preferences.h"

namespace nightjar::scheduling {
namespace {

constexpr double kPauseSeconds = 2.0;
constexpr char kNameKey[] = "name";
// The tools' folder is a build setting (NIGHTJAR_TOOLS_DIR).
constexpr char kGracestopPath[] = NIGHTJAR_TOOLS_DIR "/gracestop";
constexpr char kPerchPath[] = NIGHTJAR_TOOLS_DIR "/perch";

struct Perform {
  plist::Value event;
  std::function<void()> completion;
};

// The process-wide module record.
struct EventAction {
  EventActionPorts ports;
  // One timer for every pause, made once: a timer is never destroyed from
  // inside its own callback. Null when the factory failed: no pause then.
  std::unique_ptr<runloop::Timer> pause;
  std::optional<Perform> current;
  std::deque<Perform> waiting;                      // in order of asking
  std::deque<std::function<void()>> idleCallbacks;  // in order of asking
  bool noticeShown = false;
  bool advancing = false;  // guards advance() against re-entry from a completion
};

std::unique_ptr<EventAction>& slot() {
  static std::unique_ptr<EventAction> action;
  return action;
}

const runloop::Clock& clockOf(const EventActionPorts& ports) {
  return ports.clock != nullptr ? *ports.clock : runloop::systemClock();
}

void broadcast(const EventActionPorts& ports, std::string_view name, const plist::Value& event) {
  if (ports.broadcasts != nullptr)
    ports.broadcasts->post(name, event);
}

// A tool's outcome arrives when it has exited, often after the perform ended,
// so the completion holds nothing of the module: it only logs.
platform::CommandRunner::Completion logFailureAs(const char* format) {
  return [format](platform::CommandRunner::Outcome outcome) {
    if (!outcome.started || outcome.status != 0)
      logging::logMessage(LOG_ERR, format, outcome.status);
  };
}

void runTool(const EventActionPorts& ports, const char* path, const char* argument,
             const char* errorFormat) {
  if (ports.commands != nullptr)
    ports.commands->run(path, {argument}, logFailureAs(errorFormat));
}

void requestSleep(const EventActionPorts& ports) {
  if (ports.sleep == nullptr)
    return;
  ports.sleep->sleepNow([](int error) {
    if (error != 0)
      logging::logMessage(LOG_ERR, "Sleep error: %d", error);
  });
}

// Starts the action; any type but these five does nothing.
void carryOut(const EventActionPorts& ports, const plist::Value& type) {
  const std::string* name = type.asString();
  const std::optional<model::ActionKind> kind =
      name != nullptr ? model::actionKindNamed(*name) : std::nullopt;
  if (kind == model::ActionKind::Sleep) {
    requestSleep(ports);
  } else if (kind == model::ActionKind::FastUserSwitch) {
    if (monitors::isConsoleUserActive())
      runTool(ports, kPerchPath, "-s", "perch error: %d");
    else
      logging::logMessage(LOG_INFO, "Ignored fast user switch - no active user");
  } else if (kind == model::ActionKind::Logout) {
    runTool(ports, kPerchPath, "-l", "perch error: %d");
  } else if (kind == model::ActionKind::Restart) {
    runTool(ports, kGracestopPath, "-r", "gracestop error: %d");
  } else if (kind == model::ActionKind::Shutdown) {
    runTool(ports, kGracestopPath, "-h", "gracestop error: %d");
  }
}

void advance();

bool idle(const EventAction& action) {
  return !action.current && action.waiting.empty();
}

// Calls the idle callbacks in order while the module stays idle: one that
// starts a perform leaves the rest for the end of that perform.
void callIdleCallbacks() {
  for (;;) {
    EventAction* action = slot().get();
    if (action == nullptr || !idle(*action) || action->idleCallbacks.empty())
      return;
    std::function<void()> callback = std::move(action->idleCallbacks.front());
    action->idleCallbacks.pop_front();
    callback();
  }
}

// The last step of every perform: the activity count goes down, the perform
// is over, and its completion runs. `action` may be gone once the completion
// returned (it may tear the module down), so nothing touches it afterwards.
void finish(EventAction& action) {
  monitors::systemMonitorLowerActivity(monitors::systemMonitorGet());
  std::function<void()> completion = std::move(action.current->completion);
  action.current.reset();
  if (completion)
    completion();
  advance();
}

void endPause() {
  EventAction* action = slot().get();
  if (action == nullptr || !action->current)
    return;  // a stray fire: nothing is pausing
  if (action->noticeShown && action->ports.notice != nullptr)
    action->ports.notice->close();
  action->noticeShown = false;
  const plist::Value event = action->current->event;
  carryOut(action->ports, eventActionTypeOf(event));
  broadcast(action->ports, kDidPerformNotification, event);
  finish(*action);
}

// With the console notifier on, the notice covers the pause; whether or not it
// could be shown, the pause lasts the same.
void startPause(EventAction& action, const plist::Value& type) {
  if (action.ports.notice != nullptr &&
      persistence::preferencesGetBoolean(persistence::kConsoleNotifierKey,
                                         persistence::kConsoleNotifierDefault)) {
    const std::vector<logging::LogArg> args = {type};
    action.noticeShown = action.ports.notice->show(
        logging::formatLogLine("Scheduled %@ has begun", args),
        logging::formatLogLine("An automated %@ has begun. This is a previously scheduled event.",
                               args),
        kPauseSeconds);
  }
  if (action.pause == nullptr) {
    endPause();
    return;
  }
  action.pause->setNextFireDate(clockOf(action.ports).now() + kPauseSeconds);
}

void begin(EventAction& action) {
  const plist::Value event = action.current->event;
  monitors::systemMonitorRaiseActivity(monitors::systemMonitorGet());
  logging::logValue(LOG_NOTICE, "Performing: %@", event.get(kNameKey));
  logging::logValue(LOG_DEBUG, "Performing: %@", event);
  const plist::Value type = eventActionTypeOf(event);
  // The hardware wakes the machine for these: there is nothing to carry out.
  if (eventActionIsWakeKind(event)) {
    logging::logMessage(LOG_DEBUG, "IOKit Performing: %@", type);
    finish(action);
    return;
  }
  if (type.isNone()) {
    finish(action);
    return;
  }
  broadcast(action.ports, kWillPerformNotification, event);
  startPause(action, type);
}

// Starts waiting performs, one at a time, until one pauses or none is left.
// A loop rather than recursion: a completion that asks for the next perform
// re-enters here, and a long run of wake kinds must not deepen the stack.
void advance() {
  for (;;) {
    EventAction* action = slot().get();
    if (action == nullptr || action->advancing || action->current)
      return;
    if (action->waiting.empty()) {
      callIdleCallbacks();
      return;
    }
    action->advancing = true;
    action->current = std::move(action->waiting.front());
    action->waiting.pop_front();
    begin(*action);
    if (slot().get() == action)
      action->advancing = false;
  }
}

}  // namespace

void eventActionSetUp(EventActionPorts ports) {
  if (slot() != nullptr)
    return;
  auto action = std::make_unique<EventAction>();
  action->ports = std::move(ports);
  if (action->ports.timers)
    action->pause = action->ports.timers([] { endPause(); });
  slot() = std::move(action);
}

void eventActionTearDown() {
  EventAction* action = slot().get();
  if (action == nullptr)
    return;
  if (action->current) {
    if (action->noticeShown && action->ports.notice != nullptr)
      action->ports.notice->close();
    monitors::systemMonitorLowerActivity(monitors::systemMonitorGet());
  }
  slot().reset();
}

void eventActionPerform(const plist::Value& event, std::function<void()> completion) {
  if (event.isNone())
    return;
  EventAction* action = slot().get();
  if (action == nullptr) {
    if (completion)
      completion();
    return;
  }
  action->waiting.push_back({event, std::move(completion)});
  advance();
}

bool eventActionBusy() {
  const EventAction* action = slot().get();
  return action != nullptr && !idle(*action);
}

void eventActionWhenIdle(std::function<void()> callback) {
  EventAction* action = slot().get();
  if (action == nullptr || idle(*action)) {
    if (callback)
      callback();
    return;
  }
  action->idleCallbacks.push_back(std::move(callback));
}

}  // namespace nightjar::scheduling
