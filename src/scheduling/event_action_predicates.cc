// The action-type predicates that the controllers and the wake entries share.
#include "model/event.h"
#include "model/event_kinds.h"
#include "scheduling/event_action.h"

namespace nightjar::scheduling {
namespace {

constexpr double kWakeLeadTime = 120;  // seconds

std::optional<model::ActionKind> actionKindOf(const plist::Value& event) {
  const std::string* type = eventActionTypeOf(event).asString();
  if (type == nullptr)
    return std::nullopt;
  return model::actionKindNamed(*type);
}

}  // namespace

plist::Value eventActionTypeOf(const plist::Value& event) {
  return model::eventActionType(event);
}

bool eventActionIsWakeKind(const plist::Value& event) {
  const std::optional<model::ActionKind> kind = actionKindOf(event);
  return kind == model::ActionKind::StartUpOrWake || kind == model::ActionKind::Wake;
}

double eventActionLeadTime(const plist::Value& event) {
  return eventActionIsWakeKind(event) ? kWakeLeadTime : 0;
}

bool eventActionNeedsPreWake(const plist::Value& event) {
  const std::optional<model::ActionKind> kind = actionKindOf(event);
  return kind != model::ActionKind::StartUpOrWake && kind != model::ActionKind::Sleep &&
         kind != model::ActionKind::Wake;
}

std::optional<std::string_view> eventActionPowerEventType(const plist::Value& event) {
  const std::optional<model::ActionKind> kind = actionKindOf(event);
  if (kind == model::ActionKind::StartUpOrWake)
    return "wakepoweron";
  if (kind == model::ActionKind::Wake)
    return "wake";
  return std::nullopt;
}

}  // namespace nightjar::scheduling
