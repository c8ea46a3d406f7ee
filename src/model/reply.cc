#include "model/reply.h"

#include <string>
#include <utility>

namespace nightjar::model {

plist::Value makeResponse(std::int32_t status, plist::Value response) {
  plist::Dictionary record{{std::string(kStatusKey), plist::Value::integer(status)}};
  if (response) {
    record.emplace(std::string(kResponseKey), std::move(response));
  }
  return plist::Value::dictionary(std::move(record));
}

plist::Value makeError(std::int32_t code, std::optional<std::string_view> reason,
                       plist::Value detail) {
  plist::Dictionary record{{std::string(kErrorKey), plist::Value::integer(code)}};
  if (reason) {
    record.emplace(std::string(kReasonKey), plist::Value::string(std::string(*reason)));
  }
  if (detail) {
    record.emplace(std::string(kDetailKey), std::move(detail));
  }
  return plist::Value::dictionary(std::move(record));
}

plist::Value makeError(const ErrorReason& refusal, plist::Value detail) {
  return makeError(refusal.code, refusal.reason, std::move(detail));
}

}  // namespace nightjar::model
