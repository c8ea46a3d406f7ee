#include "scheduling/inactivity_queue_controller.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "model/event.h"
#include "monitors/system_monitor.h"
#include "runloop/notification_center.h"
#include "scheduling/event_action.h"

namespace nightjar::scheduling {
namespace {

// The controller's context word.
struct Inactivity {
  Inactivity(platform::IdleTimeSource* i, const runloop::Clock& c, runloop::TimerFactory t)
      : idle(i), clock(c), timers(std::move(t)) {}

  platform::IdleTimeSource* idle;
  const runloop::Clock& clock;
  runloop::TimerFactory timers;
  QueueTimer* holder = nullptr;
  // A perform of ours is under way; a firing meanwhile is answered by its
  // completion, so that the same idle spell is not performed twice over.
  bool performing = false;
  bool firedWhilePerforming = false;
  // The timer fired and waits for a fresh idle time to decide.
  bool looking = false;
  // Lets a completion that arrives after destruction do nothing.
  std::shared_ptr<bool> alive = std::make_shared<bool>(true);
};

Inactivity* inactivityOf(QueueController* controller) {
  return static_cast<Inactivity*>(queueControllerContext(controller));
}

// "trigger" → "secondsofinactivity" as a signed 32-bit integer; nullopt when
// missing or when it is no such number.
std::optional<std::int32_t> secondsOfInactivity(const plist::Value& event) {
  const plist::Value seconds = event.get(model::kTriggerKey).get(model::kSecondsOfInactivityKey);
  const std::optional<double> value = seconds.numberAsDouble();
  if (!value || !std::isfinite(*value) || std::trunc(*value) != *value ||
      *value < std::numeric_limits<std::int32_t>::min() ||
      *value > std::numeric_limits<std::int32_t>::max()) {
    return std::nullopt;
  }
  return static_cast<std::int32_t>(*value);
}

// Ascending by period; events without a readable one last.
std::weak_ordering compareByPeriod(const plist::Value& a, const plist::Value& b, void*) {
  const std::optional<std::int32_t> aSeconds = secondsOfInactivity(a);
  const std::optional<std::int32_t> bSeconds = secondsOfInactivity(b);
  if (aSeconds && bSeconds) {
    return *aSeconds <=> *bSeconds;
  }
  if (aSeconds.has_value() == bSeconds.has_value()) {
    return std::weak_ordering::equivalent;
  }
  return aSeconds ? std::weak_ordering::less : std::weak_ordering::greater;
}

double idleTime(const Inactivity& inactivity) {
  return inactivity.idle != nullptr ? inactivity.idle->idleTime() : 0;
}

// A period below 1 s repeats at most once a second: 0 or less would spin.
double repeatInterval(std::int32_t period) {
  return std::max(static_cast<double>(period), 1.0);
}

// Whether `idle` seconds exceed the period in whole seconds. A timer armed for
// the very instant may find a hair less by rounding; a millisecond of slack
// keeps it from coming round again for that.
bool pastPeriod(double idle, std::int32_t period) {
  return idle + 0.001 >= static_cast<double>(period) + 1;
}

// Sets the timer to the instant at which the idle time, `idle` seconds now,
// exceeds the first event's period in whole seconds if the user stays away.
void arm(QueueController* controller, Inactivity& inactivity, double idle) {
  runloop::Timer* timer = queueTimerGetTimer(inactivity.holder);
  if (timer == nullptr) {
    return;
  }
  const std::optional<std::int32_t> period =
      secondsOfInactivity(queueControllerFirstEvent(controller));
  if (!period) {
    queueTimerPark(inactivity.holder);
    return;
  }
  timer->setNextFireDate(inactivity.clock.now() + *period + 1 - idle);
}

// Arms from the idle time known now and asks for a fresh one, which arms
// again when it arrives.
void armFromIdleTime(QueueController* controller, void* context) {
  auto* inactivity = static_cast<Inactivity*>(context);
  if (inactivity == nullptr) {
    return;
  }
  arm(controller, *inactivity, idleTime(*inactivity));
  if (inactivity->idle != nullptr) {
    inactivity->idle->refresh();
  }
}

void perform(Inactivity& inactivity, const plist::Value& event) {
  inactivity.performing = true;
  inactivity.firedWhilePerforming = false;
  std::weak_ptr<bool> alive = inactivity.alive;
  Inactivity* self = &inactivity;
  eventActionPerform(event, [alive, self] {
    if (alive.expired()) {
      return;
    }
    self->performing = false;
    // The period ran out again while performing: look again at once.
    runloop::Timer* timer = queueTimerGetTimer(self->holder);
    if (self->firedWhilePerforming && timer != nullptr) {
      self->firedWhilePerforming = false;
      timer->setNextFireDate(self->clock.now());
    }
  });
}

// With a fresh idle time: performs the first event when the user has been
// idle longer than its period and looks again a period later (so it repeats
// for as long as nobody comes back), else arms for when the period would run
// out.
void look(QueueController* controller, Inactivity& inactivity) {
  inactivity.looking = false;
  const plist::Value first = queueControllerFirstEvent(controller);
  const std::optional<std::int32_t> period = secondsOfInactivity(first);
  if (!period) {
    return;
  }
  const double idle = idleTime(inactivity);
  if (!pastPeriod(idle, *period)) {
    arm(controller, inactivity, idle);
    return;
  }
  perform(inactivity, first);
  queueTimerGetTimer(inactivity.holder)
      ->setNextFireDate(inactivity.clock.now() + repeatInterval(*period));
}

// The look waits for a fresh idle time: the one known may predate the user's
// return (logind sends no signal for terminal sessions).
void timerFired(QueueTimer* holder) {
  QueueController* controller = queueTimerGetController(holder);
  Inactivity* inactivity = inactivityOf(controller);
  if (inactivity == nullptr || inactivity->holder != holder ||
      !secondsOfInactivity(queueControllerFirstEvent(controller))) {
    return;
  }
  if (inactivity->performing) {
    inactivity->firedWhilePerforming = true;
    return;
  }
  inactivity->looking = true;
  if (inactivity->idle == nullptr || !inactivity->idle->refresh()) {
    look(controller, *inactivity);
  }
}

// A fresh idle time: it finishes the look under way, or else re-arms.
void idleTimeArrived(QueueController* controller, Inactivity& inactivity) {
  if (inactivity.looking) {
    look(controller, inactivity);
  } else {
    arm(controller, inactivity, idleTime(inactivity));
  }
}

bool acceptsInactive(QueueController*, std::string_view triggerType, void*) {
  return triggerType == kInactiveTriggerType;
}

// The context word holds the set-up until here; from here on the same record
// also holds the timer.
void* createTimer(QueueController* controller) {
  Inactivity* inactivity = inactivityOf(controller);
  inactivity->holder = queueTimerCreate(controller, timerFired, inactivity->timers);
  monitors::SystemMonitor* monitor = monitors::systemMonitorGet();
  // Without a monitor there is no wake to hear; a null object would mean
  // every sender.
  if (inactivity->holder != nullptr && monitor != nullptr) {
    runloop::localCenter().addObserver(
        inactivity->holder,
        [controller, inactivity](std::string_view, const void*, const plist::Value&) {
          arm(controller, *inactivity, /*idle=*/0);
        },
        std::string(monitors::kWakeNotification), monitor);
  }
  if (inactivity->idle != nullptr) {
    inactivity->idle->setListener(
        [controller, inactivity] { idleTimeArrived(controller, *inactivity); });
  }
  return inactivity;
}

void destroyTimer(QueueController*, void* context) {
  auto* inactivity = static_cast<Inactivity*>(context);
  if (inactivity == nullptr) {
    return;
  }
  if (inactivity->idle != nullptr) {
    inactivity->idle->setListener({});
  }
  if (inactivity->holder != nullptr) {
    runloop::localCenter().removeObserver(inactivity->holder);
    queueTimerDestroy(inactivity->holder);
  }
  delete inactivity;
}

}  // namespace

QueueController* inactivityQueueControllerCreate(platform::IdleTimeSource* idle,
                                                 const runloop::Clock& clock,
                                                 runloop::TimerFactory timers) {
  auto inactivity = std::make_unique<Inactivity>(idle, clock, std::move(timers));
  QueueControllerCallbacks callbacks;
  callbacks.acceptsTriggerType = acceptsInactive;
  callbacks.create = createTimer;
  callbacks.destroy = destroyTimer;
  callbacks.didChange = armFromIdleTime;
  callbacks.didReset = armFromIdleTime;
  callbacks.initialContext = inactivity.get();
  QueueOptions options;
  options.comparator = compareByPeriod;
  QueueController* controller =
      queueControllerCreate(std::string(kInactivityControllerName), callbacks, options);
  if (controller != nullptr) {
    inactivity.release();  // owned by the controller: freed by destroyTimer
  }
  return controller;
}

}  // namespace nightjar::scheduling
