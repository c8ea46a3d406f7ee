#include "notifications/pending_list.h"

#include <cmath>
#include <string>

#include "model/event.h"
#include "notifications/notification_controller.h"

namespace nightjar::notifications {

std::optional<plist::AbsoluteTime> pendingTriggerDate(const plist::Value& event) {
  const std::optional<plist::AbsoluteTime> date = event.get(kTriggerDateKey).asDate();
  if (!date || !std::isfinite(*date)) {
    return std::nullopt;
  }
  return date;
}

bool pendingIsWarned(const plist::Value& event) {
  return !event.get(kNotifiedKey).isNone();
}

std::optional<plist::AbsoluteTime> pendingWarnTime(const plist::Value& event, double notifyPeriod) {
  const std::optional<plist::AbsoluteTime> trigger = pendingTriggerDate(event);
  if (!trigger) {
    return std::nullopt;
  }
  return *trigger - notifyPeriod;
}

std::weak_ordering comparePending(const plist::Value& a, const plist::Value& b,
                                  double notifyPeriod) {
  const bool aWarned = pendingIsWarned(a);
  const bool bWarned = pendingIsWarned(b);
  if (aWarned && bWarned) {
    return model::compareEventsByKey(a, b, kNotifiedKey);
  }
  if (aWarned != bWarned) {
    return aWarned ? std::weak_ordering::greater : std::weak_ordering::less;
  }
  // The period is finite and the same for both, so the warn times keep the
  // trigger dates' order even where the subtraction saturates.
  const std::optional<plist::AbsoluteTime> aWarn = pendingWarnTime(a, notifyPeriod);
  const std::optional<plist::AbsoluteTime> bWarn = pendingWarnTime(b, notifyPeriod);
  if (!aWarn || !bWarn) {
    return aWarn.has_value() == bWarn.has_value()
               ? std::weak_ordering::equivalent
               : (aWarn ? std::weak_ordering::less : std::weak_ordering::greater);
  }
  return std::weak_order(*aWarn, *bWarn);
}

plist::Value pendingView(const plist::Array& events) {
  plist::Array view = model::copyPublicEvents(events, kTriggerDateKey);
  for (plist::Value& event : view) {
    const plist::Value date = event.get(kTriggerDateKey);
    if (!date.isDate()) {
      continue;
    }
    event = event.with(model::kTriggerKey,
                       plist::Value::dictionary({
                           {std::string(model::kTypeKey), plist::Value::string("once")},
                           {std::string(model::kDateKey), date},
                       }));
  }
  return plist::Value::array(std::move(view));
}

}  // namespace nightjar::notifications
