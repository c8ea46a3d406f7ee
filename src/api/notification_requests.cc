#include "api/notification_requests.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <utility>

#include "api/request_action.h"
#include "api/scheduler_requests.h"
#include "model/event.h"
#include "model/reply.h"
#include "model/validation.h"
#include "notifications/notification_controller.h"
#include "state/saved_state_size.h"

namespace nightjar::api {
namespace {

namespace message = model::message;
using notifications::notificationControllerGet;

plist::Value elementFault(std::string_view text) {
  return faultRecord(model::kElementKey, messageValue(text));
}

// Both numeric checks run and the later one wins, as in the event checks.
plist::Value delaySecondsFault(const plist::Value& seconds) {
  if (!seconds) {
    return faultRecord(model::kGeneralKey, messageValue(kDelaySecondsMissing));
  }
  if (!seconds.isNumber()) {
    return elementFault(message::kMustBeNumber);
  }
  plist::Value fault;
  const model::Int32Conversion reading = model::toInt32(seconds);
  if (!reading.exact) {
    fault = elementFault(message::kLostResolution);
  }
  if (reading.value > model::kMaxSeconds) {
    fault = elementFault(message::kAboveMaximum);
  }
  return fault;
}

plist::Value checkUniqueId(const plist::Value& parameter) {
  if (plist::Value fault = model::validateUniqueID(parameter)) {
    return faultRecord(kUniqueIdDetailKey, std::move(fault));
  }
  return {};
}

plist::Value checkSeconds(const plist::Value& parameter) {
  if (parameter.isNumber()) {
    return {};
  }
  return faultRecord(kSecondsDetailKey, messageValue(message::kMustBeNumber));
}

// These changes replace dates and add a few keys at most; near the saved
// state's limit even that is refused, before anything changes.
bool admitted() {
  return state::savedStateAdmits(state::kSmallChangeBytes);
}

plist::Value tooLarge() {
  return model::makeError(model::refusal::kSavedStateTooLarge);
}

plist::Value pending(const plist::Value&) {
  return notifications::notificationRequestPending(notificationControllerGet());
}

plist::Value cancel(const plist::Value& uniqueId) {
  if (!admitted()) {
    return tooLarge();
  }
  return notifications::notificationRequestCancel(notificationControllerGet(), uniqueId);
}

plist::Value delay(const plist::Value& parameter) {
  if (!admitted()) {
    return tooLarge();
  }
  return notifications::notificationRequestDelay(notificationControllerGet(),
                                                 parameter.get(model::kUniqueIdKey),
                                                 parameter.get(kSecondsDetailKey));
}

plist::Value reset(const plist::Value& uniqueId) {
  if (!admitted()) {
    return tooLarge();
  }
  return notifications::notificationRequestReset(notificationControllerGet(), uniqueId);
}

plist::Value notifyPeriod(const plist::Value&) {
  return notifications::notificationRequestNotifyPeriod(notificationControllerGet());
}

plist::Value setNotifyPeriod(const plist::Value& seconds) {
  if (!admitted()) {
    return tooLarge();
  }
  return notifications::notificationRequestSetNotifyPeriod(notificationControllerGet(), seconds);
}

constexpr std::array kNotificationActions{
    RequestAction{"pending", /*takesParameter=*/false, nullptr, pending},
    RequestAction{"cancel", true, checkUniqueId, cancel},
    RequestAction{"delay", true, checkDelayParameter, delay},
    RequestAction{"reset", true, checkUniqueId, reset},
    RequestAction{"notifyperiod", false, nullptr, notifyPeriod},
    RequestAction{"setnotifyperiod", true, checkSeconds, setNotifyPeriod},
};

}  // namespace

plist::Value handleNotificationsRequest(std::string_view action, const plist::Value& parameter) {
  return performRequestAction(kNotificationActions, action, parameter);
}

plist::Value checkDelayParameter(const plist::Value& parameter) {
  if (!parameter.isDictionary()) {
    return faultRecord(model::kParameterKey, messageValue(message::kMustBeDictionary));
  }
  plist::Dictionary faults;
  if (plist::Value fault = delaySecondsFault(parameter.get(kSecondsDetailKey))) {
    faults.emplace(kSecondsDetailKey, std::move(fault));
  }
  if (plist::Value fault = model::validateUniqueID(parameter.get(model::kUniqueIdKey))) {
    faults.emplace(model::kUniqueIdKey, std::move(fault));
  }
  if (parameter.count() > kMaxDelayEntries) {
    faults.emplace(model::kParameterKey, messageValue(kTooManyEntries));
  }
  if (faults.empty()) {
    return {};
  }
  return plist::Value::dictionary(std::move(faults));
}

}  // namespace nightjar::api
