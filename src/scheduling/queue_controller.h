// QueueController: the events of one kind of trigger in a sorted queue, with
// that trigger's logic in a table of callbacks; QueueControllerList, the
// process-wide ordered list of controllers; QueueTimer, the parked run-loop
// timer that each controller owns. Run-loop thread only.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "model/event_queue.h"
#include "plist/value.h"
#include "runloop/clock.h"
#include "runloop/timer.h"

namespace nightjar::scheduling {

struct QueueController;

// The trigger's logic. Every slot may be empty; the first argument of each is
// the controller, the last the controller's context word.
struct QueueControllerCallbacks {
  bool (*acceptsTriggerType)(QueueController* controller, std::string_view triggerType,
                             void* context) = nullptr;
  // Called once at the end of creation; its answer becomes the context.
  void* (*create)(QueueController* controller) = nullptr;
  // Called once when the controller is destroyed.
  void (*destroy)(QueueController* controller, void* context) = nullptr;
  // `copy` is the controller's own copy of the event, which the callback may
  // change (add private keys). False refuses the event.
  bool (*willAdd)(QueueController* controller, plist::Value& copy, void* context) = nullptr;
  // As willAdd, for an event whose "uniqueid" is already queued as `queued`.
  bool (*willModify)(QueueController* controller, const plist::Value& queued, plist::Value& copy,
                     void* context) = nullptr;
  // False keeps the event queued.
  bool (*willRemove)(QueueController* controller, const plist::Value& queued,
                     void* context) = nullptr;
  // After every add, update or removal attempt that passed the callbacks.
  void (*didChange)(QueueController* controller, void* context) = nullptr;
  // After the queue's whole content was replaced.
  void (*didReset)(QueueController* controller, void* context) = nullptr;
  void* initialContext = nullptr;
};

// Handed unchanged to the controller's EventQueue.
struct QueueOptions {
  model::EventComparator comparator = nullptr;
  void* comparatorContext = nullptr;
};

// nullptr when the queue cannot be made.
QueueController* queueControllerCreate(std::string name, const QueueControllerCallbacks& callbacks,
                                       const QueueOptions& options);
// Calls `destroy`, then drops the queue without willRemove and without
// notifications. Accepts nullptr.
void queueControllerDestroy(QueueController* controller);

// Every operation below accepts a null controller and answers none, false or -1.
std::string_view queueControllerName(const QueueController* controller);
void* queueControllerContext(const QueueController* controller);
model::EventQueue* queueControllerQueue(QueueController* controller);
bool queueControllerAccepts(QueueController* controller, std::string_view triggerType);
plist::Value queueControllerFirstEvent(const QueueController* controller);
plist::Value queueControllerCopyEvents(const QueueController* controller);
int queueControllerIndexOf(const QueueController* controller, const plist::Value& uniqueId);
// Add or update through willAdd / willModify; answers the stored copy's index
// or -1. didChange runs whenever the callbacks let the event through.
int queueControllerStore(QueueController* controller, const plist::Value& event);
// Through willRemove; answers the index the event had, or -1.
int queueControllerRemove(QueueController* controller, const plist::Value& uniqueId);
// Each event, in queue order, through queueControllerRemove; one that
// willRemove keeps stays queued and the others still go.
void queueControllerRemoveAll(QueueController* controller);
// Removes all (with callbacks), sets the content unchecked, then didReset.
void queueControllerReplaceAll(QueueController* controller, const plist::Value& events);

struct QueueControllerList;

// Creates the process-wide list if absent.
void queueControllerListSetUp();
// Destroys each controller in list order (no willRemove), then the list.
void queueControllerListTearDown();
QueueControllerList* queueControllerListGet();
// The list owns `controller` from here on; without a list the controller is
// destroyed at once. Accepts nullptr for either.
void queueControllerListAppend(QueueControllerList* list, QueueController* controller);
// The first controller, in list order, that accepts the event's trigger type.
QueueController* queueControllerListFindForEvent(QueueControllerList* list,
                                                 const plist::Value& event);
// The first controller whose queue holds that "uniqueid".
QueueController* queueControllerListFindHolding(QueueControllerList* list,
                                                const plist::Value& uniqueId);
void queueControllerListRemoveAll(QueueControllerList* list);
// { controller name: its queue's array, private keys included }, leaving out a
// queue that the XML writer cannot write.
plist::Value queueControllerListCopyQueues(QueueControllerList* list);
// For each controller with an entry under its name: queueControllerReplaceAll.
void queueControllerListRestoreQueues(QueueControllerList* list, const plist::Value& queues);

// The timer a controller owns, created parked 100 years ahead and only ever
// moved by setting its next fire date.
struct QueueTimer;
using QueueTimerCallout = void (*)(QueueTimer* holder);
// nullptr when the factory gives no timer.
QueueTimer* queueTimerCreate(QueueController* controller, QueueTimerCallout callout,
                             const runloop::TimerFactory& timers);
runloop::Timer* queueTimerGetTimer(QueueTimer* holder);
QueueController* queueTimerGetController(QueueTimer* holder);
void queueTimerPark(QueueTimer* holder);
void queueTimerDestroy(QueueTimer* holder);

}  // namespace nightjar::scheduling
