#include "api/scheduler_requests.h"

#include <array>
#include <utility>

#include "api/request_action.h"
#include "model/event.h"
#include "model/event_list.h"
#include "model/reply.h"
#include "model/validation.h"
#include "runloop/notification_center.h"
#include "scheduling/event_scheduler.h"
#include "state/saved_state_size.h"

namespace nightjar::api {
namespace {

plist::Value ok() {
  return model::makeResponse(model::kStatusOk);
}

plist::Value failed() {
  return model::makeResponse(model::kStatusFailed);
}

plist::Value answer(int index) {
  return index >= 0 ? ok() : failed();
}

// A change the saved state could not hold is refused before anything changes:
// acknowledged, it would be lost at the next start.
plist::Value tooLarge() {
  return model::makeError(model::refusal::kSavedStateTooLarge);
}

plist::Value storeEvent(model::EventList* list, const plist::Value& event) {
  return answer(model::eventListStore(list, event));
}

// The record of one "setevents" member: a value that is not a dictionary has
// no members to name, so its fault is reported as the member's own.
plist::Value memberFault(const plist::Value& member) {
  if (member && !member.isDictionary()) {
    return faultRecord(model::kElementKey, messageValue(model::message::kMustBeDictionary));
  }
  return model::validateEvent(member);
}

plist::Value checkEnabled(const plist::Value& parameter) {
  if (parameter.isBoolean()) {
    return {};
  }
  return faultRecord(kEnabledDetailKey, messageValue(model::message::kMustBeBoolean));
}

plist::Value checkEvents(const plist::Value& parameter) {
  if (parameter.isArray()) {
    return {};
  }
  return faultRecord(kEventsDetailKey, messageValue(model::message::kMustBeArray));
}

plist::Value checkEvent(const plist::Value& parameter) {
  if (!parameter.isDictionary()) {
    return faultRecord(kEventDetailKey, messageValue(model::message::kMustBeDictionary));
  }
  if (plist::Value fault = model::validateEvent(parameter)) {
    return faultRecord(kEventDetailKey, std::move(fault));
  }
  return {};
}

plist::Value checkUniqueId(const plist::Value& parameter) {
  if (plist::Value fault = model::validateUniqueID(parameter)) {
    return faultRecord(kUniqueIdDetailKey, std::move(fault));
  }
  return {};
}

plist::Value readEnabled(const plist::Value&) {
  return model::makeResponse(model::kStatusOk, schedulerCopyEnabled());
}

plist::Value readEvents(const plist::Value&) {
  return model::makeResponse(model::kStatusOk, schedulerCopyEvents());
}

constexpr std::array kSchedulerActions{
    RequestAction{"enabled", /*takesParameter=*/false, nullptr, readEnabled},
    RequestAction{"setenabled", true, checkEnabled, schedulerSetEnabled},
    RequestAction{"events", false, nullptr, readEvents},
    RequestAction{"setevents", true, checkEvents, schedulerSetEvents},
    RequestAction{"set", true, checkEvent, schedulerSetEvent},
    RequestAction{"remove", true, checkUniqueId, schedulerRemoveEvent},
};

}  // namespace

plist::Value handleSchedulerRequest(std::string_view action, const plist::Value& parameter) {
  return performRequestAction(kSchedulerActions, action, parameter);
}

plist::Value schedulerCopyEnabled() {
  const scheduling::EventScheduler* scheduler = scheduling::eventSchedulerGet();
  if (scheduler == nullptr) {
    return {};
  }
  return plist::Value::boolean(scheduling::eventSchedulerIsEnabled(scheduler));
}

plist::Value schedulerSetEnabled(const plist::Value& enabled) {
  scheduling::EventScheduler* scheduler = scheduling::eventSchedulerGet();
  const std::optional<bool> flag = enabled.asBoolean();
  if (!flag || scheduler == nullptr) {
    return failed();
  }
  // Enabling queues every event again: its queue and pending copies come back.
  if (*flag && !scheduling::eventSchedulerIsEnabled(scheduler) &&
      !state::savedStateAdmits(2 * state::savedStateProjectedBytes())) {
    return tooLarge();
  }
  scheduling::eventSchedulerSetEnabled(scheduler, *flag);
  // Posted for the scheduler, whose announcements the daemon relays to other
  // processes, with what it holds now: a forced preference wins.
  runloop::localCenter().post(
      kSchedulerEnabledNotification, scheduler,
      plist::Value::boolean(scheduling::eventSchedulerIsEnabled(scheduler)));
  return ok();
}

plist::Value schedulerCopyEvents() {
  const model::EventList* list = model::eventListGet();
  if (list == nullptr) {
    return {};
  }
  return model::eventListCopyPublic(list);
}

plist::Value schedulerSetEvents(const plist::Value& events) {
  const plist::Array* members = events.asArray();
  if (members == nullptr) {
    return failed();
  }
  plist::Array faults;
  for (const plist::Value& member : *members) {
    if (plist::Value fault = memberFault(member)) {
      faults.push_back(std::move(fault));
    }
  }
  if (!faults.empty()) {
    return model::makeResponse(model::kStatusFailed, plist::Value::array(std::move(faults)));
  }
  model::EventList* list = model::eventListGet();
  std::size_t bytes = 0;
  for (const plist::Value& member : *members) {
    bytes += state::savedEventBytes(member);
  }
  if (list != nullptr && !state::savedStateAdmitsReplacement(bytes)) {
    return tooLarge();
  }
  // One "events.remove" per held event, in name order, then one "events.add"
  // (or "events.modify" for a repeated identifier) per new member.
  const plist::Value held = schedulerCopyEvents();
  if (const plist::Array* current = held.asArray()) {
    for (const plist::Value& event : *current) {
      if (plist::Value id = event.get(model::kUniqueIdKey)) {
        schedulerRemoveEvent(id);
      }
    }
  }
  // Admitted as a whole above: each member is stored without a check of its own.
  for (const plist::Value& member : *members) {
    if (list != nullptr) {
      storeEvent(list, member);
    }
  }
  return ok();
}

plist::Value schedulerSetEvent(const plist::Value& event) {
  model::EventList* list = model::eventListGet();
  if (!event || list == nullptr) {
    return failed();
  }
  if (!state::savedStateAdmits(state::savedEventBytes(event))) {
    return tooLarge();
  }
  return storeEvent(list, event);
}

plist::Value schedulerRemoveEvent(const plist::Value& uniqueId) {
  model::EventList* list = model::eventListGet();
  if (!uniqueId || list == nullptr) {
    return failed();
  }
  return answer(model::eventListRemove(list, uniqueId));
}

}  // namespace nightjar::api
