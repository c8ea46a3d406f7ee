// Replies as sentences a person reads: every error code, and a validation
// record laid out field by field ("trigger.days: more than 7 elements").
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "plist/value.h"

namespace nightjar::client {

// One line per fault of a validation record, its path joined by "."; the
// record's own "Element" and "General" keys name the value itself.
std::vector<std::string> describeValidation(const plist::Value& record);

// Why `reply` to `request` is not a success: the first line says what went
// wrong, any further lines name each faulty field. Empty for a success.
std::vector<std::string> describeFailure(std::string_view request, const plist::Value& reply);

}  // namespace nightjar::client
