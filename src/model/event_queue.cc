#include "model/event_queue.h"

#include <algorithm>
#include <utility>

#include "model/event.h"
#include "runloop/notification_center.h"

namespace nightjar::model {
namespace {

void postUpdate(const EventQueue* queue, const plist::Value& userInfo = {}) {
  runloop::localCenter().post(kQueueUpdateNotification, queue, userInfo);
}

// The first index in [low, high) at which `predicate` turns false, for a
// predicate that is true on a prefix and false after it.
template <typename Predicate>
int partitionPoint(int low, int high, Predicate predicate) {
  while (low < high) {
    const int middle = low + (high - low) / 2;
    if (predicate(middle)) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

// As partitionPoint over [begin, count), probing 1, 2, 4... places ahead of
// `begin` first: a short true prefix costs a few calls whatever `count` is.
template <typename Predicate>
int gallopPoint(int begin, int count, Predicate predicate) {
  int low = begin;
  for (int step = 1; low < count; step *= 2) {
    const int probe = std::min(low + step - 1, count - 1);
    if (!predicate(probe)) {
      return partitionPoint(low, probe, predicate);
    }
    low = probe + 1;
  }
  return count;
}

}  // namespace

bool EventQueue::less(const plist::Value& a, const plist::Value& b) const {
  return comparator_ != nullptr && comparator_(a, b, context_) < 0;
}

// The members other than the changed one are in order whenever the queue was
// in order before the store, so the changed member is moved to its place among
// them: after the equal members that stood before it and before those that
// stood after it. That is exactly where a stable sort of the whole array puts
// it, at the cost of one descent of the tree. After a replace-all the order is
// unknown: the others are checked once, and sorted as a whole when out of order.
void EventQueue::resort(int changed) {
  const int restCount = events_.size() - 1;
  if (!ordered_) {
    ordered_ = true;
    const plist::Array& members = events_.members();
    const auto rest = [&](int k) -> const plist::Value& {
      return members[static_cast<std::size_t>(k < changed ? k : k + 1)];
    };
    for (int k = 1; k < restCount; ++k) {
      if (less(rest(k), rest(k - 1))) {
        events_.sort([this](const plist::Value& a, const plist::Value& b) { return less(a, b); });
        return;
      }
    }
  }
  const plist::Value event = events_.member(changed);
  events_.reposition(changed, [&](const EventArray::Others& rest) {
    const int low =
        rest.partitionPoint([&](const plist::Value& other) { return less(other, event); });
    // The members equal to the event, usually none, follow `low`.
    const int high =
        gallopPoint(low, rest.size(), [&](int k) { return !less(event, rest.member(k)); });
    return std::clamp(changed, low, std::max(low, high));
  });
}

std::unique_ptr<EventQueue> eventQueueCreate(EventComparator comparator, void* context) {
  return std::make_unique<EventQueue>(comparator, context);
}

void eventQueueDestroy(std::unique_ptr<EventQueue> queue) {
  queue.reset();
}

plist::Value eventQueueFirst(const EventQueue* queue) {
  return queue == nullptr ? plist::Value() : queue->events().at(0);
}

plist::Value eventQueueCopyEvents(const EventQueue* queue) {
  return queue == nullptr ? plist::Value() : plist::Value::array(queue->events().members());
}

plist::Value eventQueueFind(const EventQueue* queue, const plist::Value& id) {
  return queue == nullptr ? plist::Value() : eventArrayFind(queue->events(), id);
}

int eventQueueIndexOf(const EventQueue* queue, const plist::Value& id) {
  return queue == nullptr ? -1 : eventArrayIndexOf(queue->events(), id);
}

int eventQueueRemove(EventQueue* queue, const plist::Value& id) {
  if (queue == nullptr) {
    return -1;
  }
  const int index = eventArrayRemove(queue->events_, id);
  if (index >= 0) {
    postUpdate(queue);
  }
  return index;
}

void eventQueueRemoveAll(EventQueue* queue) {
  if (queue == nullptr) {
    return;
  }
  eventArrayRemoveEach(queue->events_,
                       [queue](const plist::Value& id) { return eventQueueRemove(queue, id); });
}

void eventQueueReplaceAll(EventQueue* queue, const plist::Value& events) {
  if (queue == nullptr || events.isNone()) {
    return;
  }
  eventQueueRemoveAll(queue);
  if (const plist::Array* members = events.asArray()) {
    for (const plist::Value& member : *members) {
      if (member.isDictionary() && !eventUniqueID(member).isNone()) {
        queue->events_.append(member);
      }
    }
  }
  // Unsorted as given: the next store checks the order.
  queue->ordered_ = queue->events_.size() < 2;
  postUpdate(queue);
}

int eventQueueStore(EventQueue* queue, const plist::Value& event) {
  if (queue == nullptr) {
    return -1;
  }
  const StoreOutcome outcome = eventArrayStoreAt(queue->events_, event);
  if (outcome.change == StoreOutcome::Change::Refused) {
    return -1;
  }
  if (outcome.changed()) {
    queue->resort(outcome.index);
    postUpdate(queue, event);
  }
  return queue->events_.indexOfEqual(event);
}

}  // namespace nightjar::model
