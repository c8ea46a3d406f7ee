#include "model/event_list.h"

#include <memory>
#include <string>

#include "logging/logging.h"
#include "model/event.h"
#include "model/validation.h"
#include "runloop/notification_center.h"

namespace nightjar::model {
namespace {

// The module's process-wide slot.
std::unique_ptr<EventList> gEventList;

void post(std::string_view name, const EventList* list, const plist::Value& userInfo) {
  runloop::localCenter().post(name, list, userInfo);
}

}  // namespace

void eventListSetUp() {
  if (!gEventList) {
    gEventList = std::make_unique<EventList>();
  }
}

void eventListTearDown() {
  if (gEventList) {
    runloop::localCenter().removeObserver(gEventList.get());
    gEventList.reset();
  }
}

EventList* eventListGet() {
  return gEventList.get();
}

int eventListStore(EventList* list, const plist::Value& event) {
  if (list == nullptr) {
    return -1;
  }
  const StoreOutcome outcome = eventArrayStoreAt(list->events_, event);
  switch (outcome.change) {
    case StoreOutcome::Change::Refused:
      return -1;
    case StoreOutcome::Change::Unchanged:
      break;
    case StoreOutcome::Change::Added:
      post(kEventsAddNotification, list, event);
      break;
    case StoreOutcome::Change::Replaced:
      post(kEventsModifyNotification, list, event);
      break;
  }
  return list->events_.indexOfEqual(event);
}

int eventListRemove(EventList* list, const plist::Value& id) {
  if (list == nullptr) {
    return -1;
  }
  const int index = eventArrayRemove(list->events_, id);
  if (index >= 0) {
    post(kEventsRemoveNotification, list,
         plist::Value::dictionary({{std::string(kUniqueIdKey), id}}));
  }
  return index;
}

void eventListRemoveAll(EventList* list) {
  if (list == nullptr) {
    return;
  }
  eventArrayRemoveEach(list->events_,
                       [list](const plist::Value& id) { return eventListRemove(list, id); });
}

void eventListReplaceAll(EventList* list, const plist::Value& events) {
  if (list == nullptr || events.isNone()) {
    return;
  }
  eventListRemoveAll(list);
  const plist::Array* members = events.asArray();
  if (members == nullptr) {
    return;
  }
  for (const plist::Value& member : *members) {
    if (!member.isDictionary()) {
      continue;
    }
    if (validateEvent(member)) {
      logging::logValue(LOG_ERR, "Invalid event: %@", member);
      continue;
    }
    list->events_.append(member);
  }
}

plist::Value eventListFind(const EventList* list, const plist::Value& id) {
  return list == nullptr ? plist::Value() : eventArrayFind(list->events(), id);
}

plist::Value eventListCopyPublic(const EventList* list) {
  if (list == nullptr) {
    return {};
  }
  return plist::Value::array(copyPublicEvents(list->events().members(), kNameKey));
}

}  // namespace nightjar::model
