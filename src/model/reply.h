// The two records every API reply is made of: the response record (an
// operation was carried out or attempted) and the error record (the request
// was refused). A client tells them apart by "status" versus "error".
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "plist/value.h"

namespace nightjar::model {

inline constexpr std::string_view kStatusKey = "status";
inline constexpr std::string_view kResponseKey = "response";
inline constexpr std::string_view kErrorKey = "error";
inline constexpr std::string_view kReasonKey = "reason";
inline constexpr std::string_view kDetailKey = "detail";

// Statuses of a response record.
inline constexpr std::int32_t kStatusOk = 200;
inline constexpr std::int32_t kStatusFailed = 400;

// One refusal: its code and its reason text, exactly as clients receive them.
struct ErrorReason {
  std::int32_t code;
  std::string_view reason;
};

namespace refusal {
inline constexpr ErrorReason kMissingNotificationController{400, "Missing notification controller"};
inline constexpr ErrorReason kRequestIsNull{401, "Request is NULL"};
inline constexpr ErrorReason kRequestIsRequired{401, "Request is required"};
inline constexpr ErrorReason kRequestMustBeString{401, "Request must be a CFString"};
inline constexpr ErrorReason kRequestMustBeUri{401, "Request must be URI formatted"};
inline constexpr ErrorReason kRequestMustHaveTwoComponents{401, "Request must have 2 components"};
inline constexpr ErrorReason kUnknownObject{402, "Unknown object requested"};
inline constexpr ErrorReason kUnknownElement{403, "Unknown element requested"};
inline constexpr ErrorReason kParameterMissing{404, "Parameter missing"};
inline constexpr ErrorReason kInvalidParameter{405, "Invalid parameter"};
inline constexpr ErrorReason kInvalidSeconds{405, "Invalid seconds"};
inline constexpr ErrorReason kReadOnly{407, "Read only"};
// The change would make the saved state larger than the daemon reads back.
inline constexpr ErrorReason kSavedStateTooLarge{413, "Saved state would be too large"};
inline constexpr ErrorReason kRequestMustBeAuthorized{500, "Request must be authorized"};
}  // namespace refusal

// { "status": status } plus "response" when `response` is not none. The
// response is held as it is (values are shared, not copied).
plist::Value makeResponse(std::int32_t status, plist::Value response = {});

// { "error": code } plus "reason" when one is given and "detail" when
// `detail` is not none.
plist::Value makeError(std::int32_t code, std::optional<std::string_view> reason = std::nullopt,
                       plist::Value detail = {});
plist::Value makeError(const ErrorReason& refusal, plist::Value detail = {});

}  // namespace nightjar::model
