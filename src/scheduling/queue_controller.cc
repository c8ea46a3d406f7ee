// QueueController: one trigger kind's queue and its table of callbacks.
#include <utility>
#include <vector>

#include "model/event.h"
#include "scheduling/queue_controller.h"

namespace nightjar::scheduling {

struct QueueController {
  std::string name;
  std::unique_ptr<model::EventQueue> queue;
  QueueControllerCallbacks callbacks;
  void* context = nullptr;
};

QueueController* queueControllerCreate(std::string name, const QueueControllerCallbacks& callbacks,
                                       const QueueOptions& options) {
  auto controller = std::make_unique<QueueController>();
  controller->name = std::move(name);
  controller->queue = model::eventQueueCreate(options.comparator, options.comparatorContext);
  if (controller->queue == nullptr)
    return nullptr;
  controller->callbacks = callbacks;
  controller->context = callbacks.initialContext;
  if (callbacks.create != nullptr)
    controller->context = callbacks.create(controller.get());
  return controller.release();
}

void queueControllerDestroy(QueueController* controller) {
  if (controller == nullptr)
    return;
  // The queue is still there while `destroy` runs: a controller may release
  // what it made for its first event.
  if (controller->callbacks.destroy != nullptr)
    controller->callbacks.destroy(controller, controller->context);
  model::eventQueueDestroy(std::move(controller->queue));
  delete controller;
}

std::string_view queueControllerName(const QueueController* controller) {
  return controller != nullptr ? std::string_view(controller->name) : std::string_view();
}

void* queueControllerContext(const QueueController* controller) {
  return controller != nullptr ? controller->context : nullptr;
}

model::EventQueue* queueControllerQueue(QueueController* controller) {
  return controller != nullptr ? controller->queue.get() : nullptr;
}

bool queueControllerAccepts(QueueController* controller, std::string_view triggerType) {
  if (controller == nullptr || controller->callbacks.acceptsTriggerType == nullptr)
    return false;
  return controller->callbacks.acceptsTriggerType(controller, triggerType, controller->context);
}

plist::Value queueControllerFirstEvent(const QueueController* controller) {
  return controller != nullptr ? model::eventQueueFirst(controller->queue.get()) : plist::Value();
}

plist::Value queueControllerCopyEvents(const QueueController* controller) {
  return controller != nullptr ? model::eventQueueCopyEvents(controller->queue.get())
                               : plist::Value();
}

int queueControllerIndexOf(const QueueController* controller, const plist::Value& uniqueId) {
  return controller != nullptr ? model::eventQueueIndexOf(controller->queue.get(), uniqueId) : -1;
}

int queueControllerStore(QueueController* controller, const plist::Value& event) {
  if (controller == nullptr)
    return -1;
  const plist::Value uniqueId = model::eventUniqueID(event);
  if (!uniqueId)
    return -1;
  // The controller works on its own copy; the caller's record never changes.
  plist::Value copy = event;
  const QueueControllerCallbacks& callbacks = controller->callbacks;
  const plist::Value queued = model::eventQueueFind(controller->queue.get(), uniqueId);
  bool accepted = true;
  if (queued && callbacks.willModify != nullptr) {
    accepted = callbacks.willModify(controller, queued, copy, controller->context);
  } else if (!queued && callbacks.willAdd != nullptr) {
    accepted = callbacks.willAdd(controller, copy, controller->context);
  }
  if (!accepted)
    return -1;
  const int index = model::eventQueueStore(controller->queue.get(), copy);
  if (callbacks.didChange != nullptr)
    callbacks.didChange(controller, controller->context);
  return index;
}

int queueControllerRemove(QueueController* controller, const plist::Value& uniqueId) {
  if (controller == nullptr)
    return -1;
  // Held here: the caller's identifier may live inside the record removed.
  const plist::Value id = uniqueId;
  const plist::Value queued = model::eventQueueFind(controller->queue.get(), id);
  if (!queued)
    return -1;
  const QueueControllerCallbacks& callbacks = controller->callbacks;
  if (callbacks.willRemove != nullptr &&
      !callbacks.willRemove(controller, queued, controller->context))
    return -1;
  const int index = model::eventQueueRemove(controller->queue.get(), id);
  if (callbacks.didChange != nullptr)
    callbacks.didChange(controller, controller->context);
  return index;
}

// Each member in queue order goes through queueControllerRemove. One that
// willRemove refuses stays queued and the rest are still removed, so a
// refusing controller can never make this loop forever.
void queueControllerRemoveAll(QueueController* controller) {
  if (controller == nullptr)
    return;
  std::vector<plist::Value> ids;
  for (const plist::Value& event : controller->queue->events().members()) {
    plist::Value id = model::eventUniqueID(event);
    if (!id)
      break;
    ids.push_back(std::move(id));
  }
  for (const plist::Value& id : ids)
    queueControllerRemove(controller, id);
}

void queueControllerReplaceAll(QueueController* controller, const plist::Value& events) {
  if (controller == nullptr)
    return;
  queueControllerRemoveAll(controller);
  model::eventQueueReplaceAll(controller->queue.get(), events);
  if (controller->callbacks.didReset != nullptr)
    controller->callbacks.didReset(controller, controller->context);
}

}  // namespace nightjar::scheduling
