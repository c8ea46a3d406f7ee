#include "api/dispatcher.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <memory>
#include <utility>
#include <variant>

#include "api/notification_requests.h"
#include "api/perform_wait.h"
#include "api/refusal_log.h"
#include "api/request_action.h"
#include "api/scheduler_requests.h"
#include "logging/logging.h"
#include "model/reply.h"
#include "plist/describe.h"
#include "scheduling/event_action.h"
#include "wire/version.h"

namespace nightjar::api {
namespace {

using plist::Value;
namespace refusal = model::refusal;

// The object and the action a request names.
struct Target {
  std::string object;
  std::string action;
};

// The form checks of "Request": the refusal of a malformed one, or its parts.
// A value that is not a dictionary has no members, so it lacks "Request".
std::variant<model::ErrorReason, Target> readTarget(const Value& request) {
  if (!request) {
    return refusal::kRequestIsNull;
  }
  const Value name = request.get(kRequestKey);
  if (!name) {
    return refusal::kRequestIsRequired;
  }
  const std::string* text = name.asString();
  if (text == nullptr) {
    return refusal::kRequestMustBeString;
  }
  // Split at every ".": an empty string has no parts, one "." makes two.
  const std::size_t dot = text->find('.');
  if (text->empty() || dot == std::string::npos || text->find('.', dot + 1) != std::string::npos) {
    return refusal::kRequestMustHaveTwoComponents;
  }
  return Target{text->substr(0, dot), text->substr(dot + 1)};
}

bool isAuthorizationForm(const Value& authorization) {
  const plist::Bytes* bytes = authorization.asData();
  return bytes != nullptr && bytes->size() == kAuthorizationFormSize;
}

// Logs the exchange, then hands the reply on.
void answer(const Value& request, Value reply, const ReplyDone& done) {
  // Departure: refusals are logged within a per-uid bound (api/refusal_log.h).
  const std::optional<uid_t> uid = RequesterScope::current();
  if (!reply.get(model::kErrorKey) || !uid || refusalLineAdmitted(*uid))
    logging::logMessage(LOG_ERR, "API: %@ > %@", Value::string(plist::describeValue(request)),
                        Value::string(plist::describeValue(reply)));
  if (done) {
    done(std::move(reply));
  }
}

Value buildVersion(const Value&) {
  return model::makeResponse(model::kStatusOk, Value::string(versionString()));
}

constexpr std::array kBuildActions{
    RequestAction{"version", /*takesParameter=*/false, nullptr, buildVersion},
};

Value handleBuildRequest(std::string_view action, const Value& parameter) {
  return performRequestAction(kBuildActions, action, parameter);
}

struct RequestObject {
  std::string_view name;
  Value (*handle)(std::string_view action, const Value& parameter);
};

constexpr std::array kObjects{
    RequestObject{"scheduler", handleSchedulerRequest},
    RequestObject{"notifications", handleNotificationsRequest},
    RequestObject{"build", handleBuildRequest},
};

// Routes by object, exactly and case-sensitively, then by action.
Value route(const Target& target, const Value& parameter) {
  const auto object =
      std::find_if(kObjects.begin(), kObjects.end(),
                   [&target](const RequestObject& row) { return row.name == target.object; });
  if (object == kObjects.end()) {
    return model::makeError(refusal::kUnknownObject);
  }
  return object->handle(target.action, parameter);
}

// The reply of a request that waited: the daemon is not settled until it is
// given. A reply that waited already keeps its ticket.
ReplyDone holdingTicket(ReplyDone reply) {
  auto ticket = std::make_shared<PerformWaitTicket>();
  return [reply = std::move(reply), ticket](Value value) {
    if (reply) {
      reply(std::move(value));
    }
    ticket->close();
  };
}

// The operation of a granted request. One that may wait and was granted while
// a perform is under way (a check that answered late) waits for it too.
void carryOut(const Value& request, const Target& target, bool mayWait, const ReplyDone& reply) {
  if (mayWait && scheduling::eventActionBusy()) {
    performWaitKeep([request, target, reply = holdingTicket(reply)] {
      carryOut(request, target, /*mayWait=*/true, reply);
    });
    return;
  }
  answer(request, route(target, request.get(kRequestParameterKey)), reply);
}

// Has the right checked, then carries the request out or refuses it.
void authorizeThenCarryOut(const Value& request, const Authorize& authorize, Target target,
                           std::string right, bool mayWait, ReplyDone reply) {
  // Shared by every copy of the completion, so only its first call answers.
  auto answered = std::make_shared<bool>(false);
  authorize(request.get(kAuthorizationKey), std::move(right),
            [request, target = std::move(target), reply = std::move(reply), answered,
             mayWait](bool granted) {
              if (*answered) {
                return;
              }
              *answered = true;
              if (granted) {
                carryOut(request, target, mayWait, reply);
              } else {
                answer(request, model::makeError(refusal::kRequestMustBeAuthorized), reply);
              }
            });
}

void dispatch(const Value& request, const Authorize& authorize, ReplyDone reply, bool mayWait) {
  std::variant<model::ErrorReason, Target> read = readTarget(request);
  if (const model::ErrorReason* refused = std::get_if<model::ErrorReason>(&read)) {
    answer(request, model::makeError(*refused), reply);
    return;
  }
  Target target = std::get<Target>(std::move(read));
  std::optional<std::string> right = rightName(target.object, target.action);
  // Refused silently here: no form, or no right by that name can exist.
  if (!isAuthorizationForm(request.get(kAuthorizationKey)) || !right || !authorize) {
    answer(request, model::makeError(refusal::kRequestMustBeAuthorized), reply);
    return;
  }
  // A change asked for during a perform waits for it, unchecked as yet: the
  // perform comes first, then the check and the change.
  const bool waits = mayWait && isWriteRight(*right);
  if (waits && performWaitNeeded()) {
    performWaitKeep([request, authorize, target = std::move(target), right = std::move(*right),
                     reply = holdingTicket(std::move(reply))] {
      authorizeThenCarryOut(request, authorize, target, right, /*mayWait=*/true, reply);
    });
    return;
  }
  authorizeThenCarryOut(request, authorize, std::move(target), std::move(*right), waits,
                        std::move(reply));
}

}  // namespace

void dispatchRequest(const Value& request, const Authorize& authorize, ReplyDone reply) {
  dispatch(request, authorize, std::move(reply), /*mayWait=*/true);
}

Value dispatchRequestNow(const Value& request, const Grant& grant) {
  Value result;
  dispatch(
      request,
      [&grant](const Value& authorization, std::string right, AuthorizationDone done) {
        done(grant && grant(authorization, right));
      },
      [&result](Value reply) { result = std::move(reply); }, /*mayWait=*/false);
  return result;
}

std::string versionString() {
  return std::string(wire::versionText());
}

std::optional<std::string> rightName(std::string_view object, std::string_view action) {
  // The Kelvin sign is the one character outside ASCII whose lower case is
  // an ASCII letter ("k").
  constexpr std::string_view kKelvinSign = "\xE2\x84\xAA";
  const std::string name =
      std::string(kRightPrefix) + std::string(object) + "." + std::string(action);
  std::string lower;
  lower.reserve(name.size());
  for (std::size_t i = 0; i < name.size(); ++i) {
    const unsigned char byte = static_cast<unsigned char>(name[i]);
    if (byte >= 0x80 && std::string_view(name).substr(i, kKelvinSign.size()) == kKelvinSign) {
      lower.push_back('k');
      i += kKelvinSign.size() - 1;
    } else if (byte >= 0x80 || byte == 0) {
      return std::nullopt;
    } else {
      lower.push_back(byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a')
                                                 : static_cast<char>(byte));
    }
  }
  return lower;
}

}  // namespace nightjar::api
