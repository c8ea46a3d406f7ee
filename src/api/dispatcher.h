// The request dispatcher: checks a request's form, has the caller's right for
// exactly its object and action checked, routes it to the object's requests
// and answers one reply record (a response or an error record). Every
// exchange is logged at error priority as "API: <request> > <reply>"; data
// members appear there only as their length, so authorization bytes never
// reach the log. Run-loop thread only.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "plist/value.h"
#include "wire/authorization_form.h"

namespace nightjar::api {

// Members of a request dictionary.
inline constexpr std::string_view kRequestKey = "Request";
inline constexpr std::string_view kRequestParameterKey = "Parameter";
inline constexpr std::string_view kAuthorizationKey = "Authorization";

// Size of an authorization's external form, in bytes.
inline constexpr std::size_t kAuthorizationFormSize = kExternalFormBytes;
// What every right name starts with, before "<object>.<action>".
inline constexpr std::string_view kRightPrefix = "quillon.nightjar.";

// Told once whether the caller holds the right.
using AuthorizationDone = std::function<void(bool granted)>;
// Decides whether the client whose external form is `authorization` (data of
// exactly 32 bytes) holds `right` (lower-case ASCII), and calls `done` exactly
// once: at once, or later from the run loop. A refusal is logged by it.
using Authorize = std::function<void(const plist::Value& authorization, std::string right,
                                     AuthorizationDone done)>;
// Receives the reply record of one request.
using ReplyDone = std::function<void(plist::Value reply)>;

// Answers `request` (any value, or none) through `reply`, exactly once. A
// malformed request (401), a malformed authorization or a right name that is
// not ASCII (500) is answered before this returns, without calling
// `authorize`; otherwise the rest of the checks and the operation run when
// `authorize` calls back, refusing with 500 when it does not grant.
//
// A request for a write right that arrives while an event is being performed
// (or while others wait) waits, in arrival order, until the perform has
// completed, and is checked and carried out then (see perform_wait.h); so
// does the operation of one whose check answers during a perform. `authorize`
// is kept until it is called, `reply` until it is called.
void dispatchRequest(const plist::Value& request, const Authorize& authorize, ReplyDone reply);

// Answers whether the caller holds `right`, at once.
using Grant = std::function<bool(const plist::Value& authorization, std::string_view right)>;
// dispatchRequest with an authorization that answers at once: the reply. It
// never waits for a perform, and keeps nothing beyond the call.
plist::Value dispatchRequestNow(const plist::Value& request, const Grant& grant);

// "nightjard v3.7.3": the answer of "build.version".
std::string versionString();

// "quillon.nightjar.<object>.<action>" in lower case, or none when it does not
// consist of ASCII characters (or holds a NUL, which no right name can carry).
std::optional<std::string> rightName(std::string_view object, std::string_view action);

}  // namespace nightjar::api
