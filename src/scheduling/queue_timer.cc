// QueueTimer: the run-loop timer a queue controller owns, parked 100 years
// ahead while the controller has nothing due.
#include "scheduling/queue_controller.h"

namespace nightjar::scheduling {

struct QueueTimer {
  std::unique_ptr<runloop::Timer> timer;
  QueueController* controller = nullptr;  // not owned
  QueueTimerCallout callout = nullptr;
};

namespace {

// A fired one-shot timer moves on another 100 years before the callout runs,
// as a repeating timer would: the callout may set a nearer date, and a timer
// that it leaves alone stays parked, never unarmed.
void fire(QueueTimer* holder) {
  holder->timer->park();
  if (holder->callout != nullptr)
    holder->callout(holder);
}

}  // namespace

QueueTimer* queueTimerCreate(QueueController* controller, QueueTimerCallout callout,
                             const runloop::TimerFactory& timers) {
  if (!timers)
    return nullptr;
  auto holder = std::make_unique<QueueTimer>();
  holder->controller = controller;
  holder->callout = callout;
  QueueTimer* raw = holder.get();
  holder->timer = timers([raw] { fire(raw); });
  if (holder->timer == nullptr)
    return nullptr;
  holder->timer->park();
  return holder.release();
}

runloop::Timer* queueTimerGetTimer(QueueTimer* holder) {
  return holder != nullptr ? holder->timer.get() : nullptr;
}

QueueController* queueTimerGetController(QueueTimer* holder) {
  return holder != nullptr ? holder->controller : nullptr;
}

void queueTimerPark(QueueTimer* holder) {
  if (holder != nullptr)
    holder->timer->park();
}

void queueTimerDestroy(QueueTimer* holder) {
  delete holder;
}

}  // namespace nightjar::scheduling
