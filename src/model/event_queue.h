// EventQueue: the sorted container of events that one owner (a queue
// controller, the notification controller) keeps for the events it watches.
//
// Members are identified by "uniqueid" and kept in the owner's comparator
// order after every store. Each change is announced on the local notification
// center as "queue.update" with the queue itself as the object, delivered
// before the changing call returns. Run-loop thread only.
#pragma once

#include <compare>
#include <memory>
#include <string_view>

#include "model/event_array.h"
#include "plist/value.h"

namespace nightjar::model {

inline constexpr std::string_view kQueueUpdateNotification = "queue.update";

// The owner's order of two event records. It must be a strict weak order that
// depends only on the records and the context; anything else gives an
// unspecified member order, never a fault.
using EventComparator = std::weak_ordering (*)(const plist::Value& a, const plist::Value& b,
                                               void* context);

class EventQueue {
 public:
  // A null comparator keeps the members in their order of arrival.
  EventQueue(EventComparator comparator, void* context)
      : comparator_(comparator), context_(context) {}
  EventQueue(const EventQueue&) = delete;
  EventQueue& operator=(const EventQueue&) = delete;

  // The live members, borrowed: valid until the queue next changes.
  const EventArray& events() const { return events_; }

 private:
  friend int eventQueueRemove(EventQueue* queue, const plist::Value& id);
  friend void eventQueueRemoveAll(EventQueue* queue);
  friend void eventQueueReplaceAll(EventQueue* queue, const plist::Value& events);
  friend int eventQueueStore(EventQueue* queue, const plist::Value& event);

  bool less(const plist::Value& a, const plist::Value& b) const;
  // Restores comparator order after the member at `changed` was stored.
  void resort(int changed);

  EventArray events_;
  // True while the members are known to be in comparator order. Stores and
  // removals keep that order; only a replace-all (unchecked, unsorted
  // members) leaves it unknown until the next store checks it.
  bool ordered_ = true;
  const EventComparator comparator_;
  void* const context_;
};

// A new empty queue with the owner's comparator and context, fixed for its life.
std::unique_ptr<EventQueue> eventQueueCreate(EventComparator comparator, void* context);
// Releases the queue and its events; posts nothing.
void eventQueueDestroy(std::unique_ptr<EventQueue> queue);

// Every operation below accepts a null queue and then does nothing and
// answers none or -1.

// The first member, or none when the queue is empty.
plist::Value eventQueueFirst(const EventQueue* queue);
// The members as an array value, private keys included: what an owner saves
// and lists. A snapshot of the members at the call (they are immutable).
plist::Value eventQueueCopyEvents(const EventQueue* queue);
// As eventArrayFind / eventArrayIndexOf on the members.
plist::Value eventQueueFind(const EventQueue* queue, const plist::Value& id);
int eventQueueIndexOf(const EventQueue* queue, const plist::Value& id);
// As eventArrayRemove; posts "queue.update" with no user information when a
// member was removed.
int eventQueueRemove(EventQueue* queue, const plist::Value& id);
// Removes the members one by one from the front (one "queue.update" each),
// then drops any left without an identifier, silently.
void eventQueueRemoveAll(EventQueue* queue);
// Empties the queue, then appends each member of `events` that is a dictionary
// with a "uniqueid", unchecked and unsorted, in the given order (a saved queue
// is handed back already sorted). Posts one "queue.update" with no user
// information, also when `events` is not an array. A none `events` changes
// nothing.
void eventQueueReplaceAll(EventQueue* queue, const plist::Value& events);
// Validated add-or-replace (eventArrayStore). When the members changed they
// are re-sorted and "queue.update" is posted with the event as user
// information, after the sort. Answers the index of the first member equal to
// the event, or -1 (an invalid event is refused and logged).
int eventQueueStore(EventQueue* queue, const plist::Value& event);

}  // namespace nightjar::model
