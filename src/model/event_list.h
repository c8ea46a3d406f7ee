// EventList: the one process-wide list of every event the daemon knows,
// enabled or not, in order of arrival.
//
// Changes are announced on the local notification center with the list itself
// as the object, delivered before the changing call returns:
//   "events.add"    user information: the stored event (the list grew)
//   "events.modify" user information: the stored event (a held one was replaced)
//   "events.remove" user information: { "uniqueid": the identifier asked for }
// Run-loop thread only.
#pragma once

#include <string_view>

#include "model/event_array.h"
#include "plist/value.h"

namespace nightjar::model {

inline constexpr std::string_view kEventsAddNotification = "events.add";
inline constexpr std::string_view kEventsModifyNotification = "events.modify";
inline constexpr std::string_view kEventsRemoveNotification = "events.remove";

class EventList {
 public:
  EventList() = default;
  EventList(const EventList&) = delete;
  EventList& operator=(const EventList&) = delete;

  // The live members, borrowed: valid until the list next changes.
  const EventArray& events() const { return events_; }

 private:
  friend int eventListStore(EventList* list, const plist::Value& event);
  friend int eventListRemove(EventList* list, const plist::Value& id);
  friend void eventListRemoveAll(EventList* list);
  friend void eventListReplaceAll(EventList* list, const plist::Value& events);

  EventArray events_;
};

// Creates the empty list in the process-wide slot, unless one is there.
void eventListSetUp();
// Removes every local-center observation whose observer is the list, destroys
// the list and clears the slot; does nothing when the slot is empty.
void eventListTearDown();
// The list, or nullptr before set-up and after tear-down.
EventList* eventListGet();

// Every operation below accepts a null list and then does nothing and answers
// none or -1.

// Validated add-or-replace (eventArrayStore); a replaced event keeps its place
// and a new one is appended. Posts "events.add" or "events.modify" when the
// list changed. Answers the index of the first member equal to the event, or
// -1 when it was refused (invalid, logged as "Invalid event: %@").
int eventListStore(EventList* list, const plist::Value& event);
// Removes the first event with that identifier; posts "events.remove" when
// one was removed. Answers its former index, or -1.
int eventListRemove(EventList* list, const plist::Value& id);
// Removes the events one by one from the front (one "events.remove" each),
// then drops any left without an identifier, silently.
void eventListRemoveAll(EventList* list);
// Empties the list (eventListRemoveAll), then appends, in order, each member
// of `events` that is a valid event record; invalid dictionaries are logged
// as "Invalid event: %@" and skipped, other values skipped silently. Nothing
// is posted for the appended events, and repeated identifiers are kept (the
// first one wins every lookup). A none `events` changes nothing.
void eventListReplaceAll(EventList* list, const plist::Value& events);
// The first event with that identifier (the held record), or none.
plist::Value eventListFind(const EventList* list, const plist::Value& id);
// Public copies of every event (private keys removed), sorted by "name".
plist::Value eventListCopyPublic(const EventList* list);

}  // namespace nightjar::model
