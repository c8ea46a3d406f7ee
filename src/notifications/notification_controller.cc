#include "notifications/notification_controller.h"

#include <cmath>
#include <memory>
#include <string>
#include <utility>

#include "logging/logging.h"
#include "model/event.h"
#include "model/validation.h"
#include "monitors/system_monitor.h"
#include "notifications/pending_list.h"
#include "persistence/preferences.h"
#include "runloop/notification_center.h"

namespace nightjar::notifications {

struct NotificationController {
  NotificationController(const runloop::Clock& c, RescheduleCallback r)
      : clock(c), reschedule(std::move(r)) {}

  std::unique_ptr<model::EventQueue> pending;
  std::unique_ptr<runloop::Timer> timer;
  NotificationHandlers handlers;
  double notifyPeriod = persistence::kNotifyPeriodDefault;
  const runloop::Clock& clock;
  RescheduleCallback reschedule;
};

namespace {

// The module's process-wide slot.
std::unique_ptr<NotificationController> gController;

std::weak_ordering comparePendingEvents(const plist::Value& a, const plist::Value& b,
                                        void* context) {
  const auto* controller = static_cast<const NotificationController*>(context);
  return comparePending(a, b, controller->notifyPeriod);
}

// The stored period, or the default when what is stored is no finite number:
// a warn time must never be NaN or infinite.
double adoptPeriod(double stored) {
  return std::isfinite(stored) ? stored : persistence::kNotifyPeriodDefault;
}

plist::Value parameterInfo(plist::Value parameter) {
  return plist::Value::dictionary({{std::string(model::kParameterKey), std::move(parameter)}});
}

// The head's warn time when it still has to be warned; park otherwise.
void armTimer(NotificationController* controller) {
  const plist::Value head = model::eventQueueFirst(controller->pending.get());
  std::optional<plist::AbsoluteTime> warnAt;
  if (head && !pendingIsWarned(head)) {
    warnAt = pendingWarnTime(head, controller->notifyPeriod);
  }
  if (warnAt) {
    controller->timer->setNextFireDate(*warnAt);
  } else {
    controller->timer->park();
  }
}

void issueWarning(NotificationController* controller, const plist::Value& head) {
  runloop::localCenter().post(kNotifyNotification, controller, parameterInfo(head));
  logging::logMessage(LOG_NOTICE, "Issued notification: %@", head.get(model::kNameKey));
  logging::logValue(LOG_DEBUG, "Issued notification: %@", head);
  // The observers ran first; one of them may have changed or dropped the
  // entry, and marking a stale copy would bring it back.
  const plist::Value id = model::eventUniqueID(head);
  if (model::eventQueueFind(controller->pending.get(), id).identity() != head.identity()) {
    armTimer(controller);
    return;
  }
  const plist::Value warned = head.with(kNotifiedKey, plist::Value::date(controller->clock.now()));
  // A stored change re-sorts the list and re-arms the timer (pendingChanged).
  // A refused one leaves the event unwarned; the timer is parked rather than
  // left to warn it again and again.
  if (model::eventQueueStore(controller->pending.get(), warned) < 0) {
    controller->timer->park();
  }
}

// Also run on wake: a warning whose time passed while the system slept is
// issued at once.
void timerFired(NotificationController* controller) {
  const plist::Value head = model::eventQueueFirst(controller->pending.get());
  if (!head || pendingIsWarned(head)) {
    return;
  }
  const std::optional<plist::AbsoluteTime> warnAt = pendingWarnTime(head, controller->notifyPeriod);
  if (warnAt && controller->clock.now() > *warnAt) {
    issueWarning(controller, head);
  } else {
    armTimer(controller);
  }
}

// The post carries no list: its one reader, the relay, sends the name alone,
// and building the sorted view on every change made a burst of n changes cost
// n sorts. Whoever needs the list asks for the view.
void pendingChanged(NotificationController* controller) {
  armTimer(controller);
  runloop::localCenter().post(kPendingNotification, controller);
}

void observe(NotificationController* controller) {
  runloop::NotificationCenter& center = runloop::localCenter();
  center.addObserver(
      controller,
      [controller](std::string_view, const void*, const plist::Value&) {
        pendingChanged(controller);
      },
      std::string(model::kQueueUpdateNotification), controller->pending.get());
  // Without a monitor there is no wake to hear; a null object would mean
  // every sender.
  if (monitors::SystemMonitor* monitor = monitors::systemMonitorGet()) {
    center.addObserver(
        controller,
        [controller](std::string_view, const void*, const plist::Value&) {
          timerFired(controller);
        },
        std::string(monitors::kWakeNotification), monitor);
  }
}

}  // namespace

void notificationControllerCreate(const runloop::Clock& clock, const runloop::TimerFactory& timers,
                                  RescheduleCallback reschedule) {
  if (gController || !timers) {
    return;
  }
  auto controller = std::make_unique<NotificationController>(clock, std::move(reschedule));
  NotificationController* raw = controller.get();
  controller->timer = timers([raw] { timerFired(raw); });
  controller->pending = model::eventQueueCreate(comparePendingEvents, raw);
  if (!controller->timer || !controller->pending) {
    return;
  }
  controller->timer->park();
  observe(raw);
  controller->notifyPeriod = adoptPeriod(persistence::preferencesGetNumber(
      persistence::kNotifyPeriodKey, persistence::kNotifyPeriodDefault));
  gController = std::move(controller);
}

void notificationControllerDestroy() {
  if (!gController) {
    return;
  }
  runloop::localCenter().removeObserver(gController.get());
  gController->timer.reset();
  model::eventQueueDestroy(std::move(gController->pending));
  gController.reset();
}

NotificationController* notificationControllerGet() {
  return gController.get();
}

double notificationControllerGetNotifyPeriod(const NotificationController* controller) {
  return controller == nullptr ? persistence::kNotifyPeriodDefault : controller->notifyPeriod;
}

void notificationControllerSetNotifyPeriod(NotificationController* controller, double seconds) {
  if (controller == nullptr || !std::isfinite(seconds) || seconds == controller->notifyPeriod) {
    return;
  }
  controller->notifyPeriod = adoptPeriod(persistence::preferencesSetAndReadBackNumber(
      persistence::kNotifyPeriodKey, seconds, persistence::kNotifyPeriodDefault));
  // A forced value wins silently: it is adopted, but the timer is left as it
  // was (its next firing re-arms for the period in force) and nothing is
  // announced.
  if (controller->notifyPeriod == seconds) {
    armTimer(controller);
    runloop::localCenter().post(kNotifyPeriodNotification, controller);
  }
}

void notificationControllerRegisterHandlers(NotificationController* controller,
                                            const NotificationHandlers& handlers) {
  if (controller != nullptr) {
    controller->handlers = handlers;
  }
}

void notificationControllerAddPending(NotificationController* controller, const plist::Value& event,
                                      plist::AbsoluteTime triggerDate) {
  if (controller == nullptr || !event.isDictionary()) {
    return;
  }
  // Queued again (next occurrence, delay, change): warned again.
  const plist::Value entry =
      event.without(kNotifiedKey).with(kTriggerDateKey, plist::Value::date(triggerDate));
  model::eventQueueStore(controller->pending.get(), entry);
}

void notificationControllerRemovePending(NotificationController* controller,
                                         const plist::Value& uniqueId) {
  if (controller != nullptr) {
    model::eventQueueRemove(controller->pending.get(), uniqueId);
  }
}

plist::Value notificationControllerCopyPendingView(const NotificationController* controller) {
  if (controller == nullptr) {
    return {};
  }
  return pendingView(controller->pending->events().members());
}

void notificationControllerCancel(NotificationController* controller,
                                  const plist::Value& uniqueId) {
  if (controller == nullptr || controller->handlers.cancel == nullptr) {
    return;
  }
  const plist::Value event = model::eventQueueFind(controller->pending.get(), uniqueId);
  if (event) {
    controller->handlers.cancel(controller, event, controller->handlers.context);
  }
}

void notificationControllerDelay(NotificationController* controller, const plist::Value& uniqueId,
                                 double seconds) {
  if (controller == nullptr || !(seconds > 0) || controller->handlers.delay == nullptr) {
    return;
  }
  const plist::Value event = model::eventQueueFind(controller->pending.get(), uniqueId);
  if (event) {
    controller->handlers.delay(controller, event, seconds, controller->handlers.context);
  }
}

void notificationControllerReset(NotificationController* controller, const plist::Value& uniqueId) {
  if (controller == nullptr || !controller->reschedule) {
    return;
  }
  if (model::eventQueueFind(controller->pending.get(), uniqueId)) {
    controller->reschedule(uniqueId);
  }
}

plist::Value notificationControllerCopyState(const NotificationController* controller) {
  return controller == nullptr ? plist::Value()
                               : model::eventQueueCopyEvents(controller->pending.get());
}

void notificationControllerApplyState(NotificationController* controller,
                                      const plist::Value& pending) {
  if (controller != nullptr) {
    model::eventQueueReplaceAll(controller->pending.get(), pending);
  }
}

const model::EventQueue* notificationControllerPendingQueue(
    const NotificationController* controller) {
  return controller == nullptr ? nullptr : controller->pending.get();
}

}  // namespace nightjar::notifications
