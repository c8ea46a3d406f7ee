// Requests as the daemon reads them, and what their replies say.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "plist/value.h"

namespace nightjar::client {

// The 32-byte authorization form naming this process; none when its start time
// cannot be read from /proc.
plist::Value ownAuthorization();

// {"Request": name, "Authorization": form[, "Parameter": parameter]}.
plist::Value makeRequest(std::string_view name, const plist::Value& authorization,
                         const plist::Value& parameter = {});

// True for the requests that change something (and need a write right).
bool isWriteRequest(std::string_view name);

// "quillon.nightjar.<object>.<action>", lower case.
std::string rightName(std::string_view request);

// A reply of "status" 200; its "response" (may be none) through `response`.
bool succeeded(const plist::Value& reply, plist::Value* response = nullptr);

}  // namespace nightjar::client
