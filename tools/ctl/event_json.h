// Events as JSON, mirroring the record: dictionaries, arrays, strings and
// booleans as themselves; an integer stays an integer and a real keeps its
// fraction (validation tells them apart); a date is an ISO 8601 UTC string;
// data is {"base64": "..."}. Members this program does not know are kept.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "plist/value.h"

namespace nightjar::ctl {

nlohmann::ordered_json toJson(const plist::Value& value);
// None, with `error` naming the place, for null or a number that fits neither
// a 64-bit integer nor a real.
plist::Value fromJson(const nlohmann::ordered_json& json, std::string& error);

}  // namespace nightjar::ctl
