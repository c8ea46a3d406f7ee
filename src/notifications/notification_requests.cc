// The request operations behind "notifications.<action>". The dispatcher has
// checked the parameters' form already; these check again only what they
// rely on, so that a missing or odd value is answered, never trusted.
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <utility>

#include "model/reply.h"
#include "notifications/notification_controller.h"

namespace nightjar::notifications {
namespace {

// The largest magnitude up to which every integer is exactly a double.
constexpr std::int64_t kExactDoubleLimit = std::int64_t{1} << 53;

plist::Value ok(plist::Value response = {}) {
  return model::makeResponse(model::kStatusOk, std::move(response));
}

plist::Value failed() {
  return model::makeResponse(model::kStatusFailed);
}

// Delay seconds are a whole number: a real is cut to its integer part, and
// anything beyond 32 bits (the dispatcher allows at most 86400) is refused.
std::optional<double> wholeSeconds(const plist::Value& seconds) {
  if (const std::optional<std::int64_t> integer = seconds.asInteger()) {
    if (*integer < std::numeric_limits<std::int32_t>::min() ||
        *integer > std::numeric_limits<std::int32_t>::max()) {
      return std::nullopt;
    }
    return static_cast<double>(*integer);
  }
  const std::optional<double> real = seconds.numberAsDouble();
  if (!real || !(std::fabs(*real) < 2147483648.0)) {
    return std::nullopt;
  }
  return std::trunc(*real);
}

// A notify period: a number that is exactly a finite double.
// NaN and infinities are refused (405) on purpose: they cannot be stored as a period.
std::optional<double> exactSeconds(const plist::Value& seconds) {
  if (const std::optional<std::int64_t> integer = seconds.asInteger()) {
    if (*integer < -kExactDoubleLimit || *integer > kExactDoubleLimit) {
      return std::nullopt;
    }
    return static_cast<double>(*integer);
  }
  const std::optional<double> real = seconds.numberAsDouble();
  if (!real || !std::isfinite(*real)) {
    return std::nullopt;
  }
  return real;
}

}  // namespace

plist::Value notificationRequestPending(NotificationController* controller) {
  return ok(notificationControllerCopyPendingView(controller));
}

plist::Value notificationRequestCancel(NotificationController* controller,
                                       const plist::Value& uniqueId) {
  if (controller == nullptr || uniqueId.isNone()) {
    return failed();
  }
  notificationControllerCancel(controller, uniqueId);
  return ok();
}

plist::Value notificationRequestDelay(NotificationController* controller,
                                      const plist::Value& uniqueId, const plist::Value& seconds) {
  const std::optional<double> delay = wholeSeconds(seconds);
  if (controller == nullptr || uniqueId.isNone() || !delay) {
    return failed();
  }
  notificationControllerDelay(controller, uniqueId, *delay);
  return ok();
}

plist::Value notificationRequestReset(NotificationController* controller,
                                      const plist::Value& uniqueId) {
  if (controller == nullptr || uniqueId.isNone()) {
    return failed();
  }
  notificationControllerReset(controller, uniqueId);
  return ok();
}

plist::Value notificationRequestNotifyPeriod(NotificationController* controller) {
  if (controller == nullptr) {
    return ok();
  }
  return ok(plist::Value::real(notificationControllerGetNotifyPeriod(controller)));
}

plist::Value notificationRequestSetNotifyPeriod(NotificationController* controller,
                                                const plist::Value& seconds) {
  const std::optional<double> period = exactSeconds(seconds);
  if (!period) {
    return model::makeError(model::refusal::kInvalidSeconds);
  }
  if (controller == nullptr) {
    return model::makeError(model::refusal::kMissingNotificationController);
  }
  notificationControllerSetNotifyPeriod(controller, *period);
  return ok();
}

}  // namespace nightjar::notifications
