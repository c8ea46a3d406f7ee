#include "api/request_action.h"

#include <algorithm>
#include <string>
#include <utility>

#include "model/reply.h"

namespace nightjar::api {

plist::Value performRequestAction(std::span<const RequestAction> actions, std::string_view name,
                                  const plist::Value& parameter) {
  const auto action = std::find_if(actions.begin(), actions.end(),
                                   [name](const RequestAction& row) { return row.name == name; });
  if (action == actions.end()) {
    return model::makeError(model::refusal::kUnknownElement);
  }
  if (!action->takesParameter) {
    if (parameter) {
      return model::makeError(model::refusal::kReadOnly);
    }
    return action->perform(parameter);
  }
  if (!parameter) {
    return model::makeError(model::refusal::kParameterMissing);
  }
  if (action->check != nullptr) {
    if (plist::Value detail = action->check(parameter)) {
      return model::makeError(model::refusal::kInvalidParameter, std::move(detail));
    }
  }
  return action->perform(parameter);
}

plist::Value faultRecord(std::string_view key, plist::Value fault) {
  return plist::Value::dictionary({{std::string(key), std::move(fault)}});
}

plist::Value messageValue(std::string_view message) {
  return plist::Value::string(std::string(message));
}

}  // namespace nightjar::api
