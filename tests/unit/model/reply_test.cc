#include "model/reply.h"

#include <gtest/gtest.h>

#include "model/validation.h"
#include "model_testing.h"

namespace nightjar::model {
namespace {

using namespace testing;
using plist::Value;

TEST(MakeResponse, StatusAloneOrWithTheValueItself) {
  EXPECT_EQ(makeResponse(kStatusOk), Dict({{"status", I(200)}}));
  const Value events = A({validEvent("a")});
  const Value reply = makeResponse(kStatusFailed, events);
  EXPECT_EQ(reply, Dict({{"status", I(400)}, {"response", events}}));
  EXPECT_EQ(reply.get("response").identity(), events.identity()) << "held, not copied";
}

// The reply table word for word: clients match on these texts.
TEST(MakeError, EveryRefusalOfTheReplyTable) {
  const std::pair<ErrorReason, Value> table[] = {
      {refusal::kMissingNotificationController, makeError(400, "Missing notification controller")},
      {refusal::kRequestIsNull, makeError(401, "Request is NULL")},
      {refusal::kRequestIsRequired, makeError(401, "Request is required")},
      {refusal::kRequestMustBeString, makeError(401, "Request must be a CFString")},
      {refusal::kRequestMustBeUri, makeError(401, "Request must be URI formatted")},
      {refusal::kRequestMustHaveTwoComponents, makeError(401, "Request must have 2 components")},
      {refusal::kUnknownObject, makeError(402, "Unknown object requested")},
      {refusal::kUnknownElement, makeError(403, "Unknown element requested")},
      {refusal::kParameterMissing, makeError(404, "Parameter missing")},
      {refusal::kInvalidParameter, makeError(405, "Invalid parameter")},
      {refusal::kInvalidSeconds, makeError(405, "Invalid seconds")},
      {refusal::kReadOnly, makeError(407, "Read only")},
      {refusal::kRequestMustBeAuthorized, makeError(500, "Request must be authorized")}};
  for (const auto& [refused, expected] : table) {
    EXPECT_EQ(makeError(refused), expected);
  }
  EXPECT_EQ(makeError(500, "Request must be authorized"),
            Dict({{"error", I(500)}, {"reason", S("Request must be authorized")}}));
  EXPECT_EQ(makeError(401), Dict({{"error", I(401)}}));
  const Value detail = validateEvent(Value());
  EXPECT_EQ(makeError(refusal::kInvalidParameter, detail),
            Dict({{"error", I(405)}, {"reason", S("Invalid parameter")}, {"detail", detail}}));
}

}  // namespace
}  // namespace nightjar::model
