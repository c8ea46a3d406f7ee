// NotificationController: warns ahead of scheduled events. It keeps the
// pending list (every event the date-time controller has queued, tagged with
// "metadatatriggerdate"), announces each event once, a notify period (900 s by
// default) before that date, as "notifications.notify", and announces every
// change of the list as "notifications.pending" (without the list, which is
// asked for through the pending view). Delay and cancel are carried
// out by handlers that the date-time controller registers here; reset by the
// reschedule callback given at creation. Run-loop thread only.
#pragma once

#include <functional>
#include <string_view>

#include "model/event_queue.h"
#include "plist/value.h"
#include "runloop/clock.h"
#include "runloop/timer.h"

namespace nightjar::notifications {

inline constexpr std::string_view kNotifyNotification = "notifications.notify";
inline constexpr std::string_view kPendingNotification = "notifications.pending";
inline constexpr std::string_view kNotifyPeriodNotification = "notifications.notifyperiod";

inline constexpr std::string_view kTriggerDateKey = "metadatatriggerdate";
inline constexpr std::string_view kNotifiedKey = "metadatanotified";

struct NotificationController;

// Set by the date-time controller at its creation, cleared (all empty) at its
// destruction. `event` is the pending list's copy of the event.
struct NotificationHandlers {
  void (*cancel)(NotificationController* controller, const plist::Value& event,
                 void* context) = nullptr;
  void (*delay)(NotificationController* controller, const plist::Value& event, double seconds,
                void* context) = nullptr;
  void* context = nullptr;
};

// What reset does with an event's "uniqueid": schedule it afresh (main hands
// in the event scheduler's reschedule).
using RescheduleCallback = std::function<void(const plist::Value& uniqueId)>;

// Creates the process-wide controller if there is none; it reads the notify
// period from the preferences. `clock` must outlive the controller.
void notificationControllerCreate(const runloop::Clock& clock, const runloop::TimerFactory& timers,
                                  RescheduleCallback reschedule);
void notificationControllerDestroy();
NotificationController* notificationControllerGet();

// Every operation below accepts a null controller and does nothing, or answers
// the default.
double notificationControllerGetNotifyPeriod(const NotificationController* controller);  // 900
void notificationControllerSetNotifyPeriod(NotificationController* controller, double seconds);
void notificationControllerRegisterHandlers(NotificationController* controller,
                                            const NotificationHandlers& handlers);
void notificationControllerAddPending(NotificationController* controller, const plist::Value& event,
                                      plist::AbsoluteTime triggerDate);
void notificationControllerRemovePending(NotificationController* controller,
                                         const plist::Value& uniqueId);
plist::Value notificationControllerCopyPendingView(const NotificationController* controller);
void notificationControllerCancel(NotificationController* controller, const plist::Value& uniqueId);
void notificationControllerDelay(NotificationController* controller, const plist::Value& uniqueId,
                                 double seconds);
void notificationControllerReset(NotificationController* controller, const plist::Value& uniqueId);
// The pending list as it is, private keys included, for the saved state.
plist::Value notificationControllerCopyState(const NotificationController* controller);
void notificationControllerApplyState(NotificationController* controller,
                                      const plist::Value& pending);
// The pending list itself, so observers can tell its "queue.update" apart.
const model::EventQueue* notificationControllerPendingQueue(
    const NotificationController* controller);

// The request operations behind "notifications.<action>", after the
// dispatcher's own checks; each answers a response or error record.
plist::Value notificationRequestPending(NotificationController* controller);
plist::Value notificationRequestCancel(NotificationController* controller,
                                       const plist::Value& uniqueId);
plist::Value notificationRequestDelay(NotificationController* controller,
                                      const plist::Value& uniqueId, const plist::Value& seconds);
plist::Value notificationRequestReset(NotificationController* controller,
                                      const plist::Value& uniqueId);
plist::Value notificationRequestNotifyPeriod(NotificationController* controller);
plist::Value notificationRequestSetNotifyPeriod(NotificationController* controller,
                                                const plist::Value& seconds);

}  // namespace nightjar::notifications
