// The one-line text form in which values appear in log lines.
#pragma once

#include <string>

#include "plist/value.h"

namespace nightjar::plist {

// Describes any value without spaces or line breaks of its own and without
// escaping: "(null)" for none, strings in double quotes, reals with "%lf",
// integers with "%ld", booleans as 1 and 0, data as "\"N bytes of data\"",
// dates in the local zone as "\"YYYY MMM D HH:MM:SS\"" (e.g. "2026 Nov 23 09:05:00"), arrays as
// [a,b], dictionaries as {"k"=>v,...} in key order.
std::string describeValue(const Value& value);

}  // namespace nightjar::plist
