// One action of a request object, as a row of a table: whether it takes a
// parameter, how the parameter is checked and what the action does. The
// dispatcher and the scheduler requests route through such tables.
#pragma once

#include <span>
#include <string_view>

#include "plist/value.h"

namespace nightjar::api {

struct RequestAction {
  std::string_view name;
  // False for an action that only reads: a parameter is then refused.
  bool takesParameter;
  // Answers the validation error record of a present parameter, or none when
  // it passes; null when the action has no check.
  plist::Value (*check)(const plist::Value& parameter);
  // Carries the action out and answers its reply record.
  plist::Value (*perform)(const plist::Value& parameter);
};

// Finds `name` in `actions` (exactly, case-sensitively) and answers its reply:
// 403 "Unknown element requested" for an unknown action, 407 "Read only" for
// a parameter sent to a reader, 404 "Parameter missing" when a parameter is
// needed and absent, 405 "Invalid parameter" with the check's record as
// "detail", else what the action performs.
plist::Value performRequestAction(std::span<const RequestAction> actions, std::string_view name,
                                  const plist::Value& parameter);

// A validation error record of one entry, `key` = `fault`.
plist::Value faultRecord(std::string_view key, plist::Value fault);
// The text of a message as a value.
plist::Value messageValue(std::string_view message);

}  // namespace nightjar::api
