#include "model/validation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "model/reply.h"
#include "model_testing.h"

namespace nightjar::model {
namespace {

using namespace testing;
using namespace message;
using plist::Value;

struct Case {
  const char* label;
  Value input;
  Value expected;  // none: valid
};

void expectAll(Value (*validate)(const Value&), const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    EXPECT_EQ(validate(c.input), c.expected) << c.label;
  }
}

Value msg(std::string_view text) {
  return S(std::string(text));
}
Value one(const char* member, Value fault) {
  return Dict({{member, std::move(fault)}});
}
Value one(const char* member, std::string_view text) {
  return one(member, msg(text));
}

// `count` characters outside the basic plane (2 UTF-16 units each), then `tail` ASCII letters.
std::string wide(std::size_t count, std::size_t tail = 0) {
  std::string text;
  while (count-- > 0)
    text += "\xF0\x9F\x98\x80";  // U+1F600
  return text + std::string(tail, 'a');
}

TEST(ValidateUniqueID, LengthAndKindInUtf16Units) {
  expectAll(validateUniqueID,
            {{"missing", Value(), one("General", kIdIsNull)},
             {"number", I(7), element(kMustBeString)},
             {"empty", S(""), element(kBelowMinimumLength)},
             {"256 units", S(std::string(256, 'x')), element(kExceedsMaximumLength)},
             {"127 wide + 1", S(wide(127, 1)), Value()},
             {"200 wide", S(wide(200)), element(kExceedsMaximumLength)}});
}

Value daily(Value seconds, Value days) {
  return Dict({{"type", S("daily")}, {"secondsfrommidnight", seconds}, {"days", days}});
}
Value at(Value seconds) {
  return daily(std::move(seconds), A({S("monday")}));
}
Value on(plist::Array elements) {
  return daily(I(60), A(std::move(elements)));
}
Value typed(const char* type, const char* member, Value value) {
  return Dict({{"type", S(type)}, {member, std::move(value)}});
}

TEST(ValidateTrigger, TypesSecondsAndDays) {
  const double inf = std::numeric_limits<double>::infinity();
  const auto seconds = [](std::string_view text) { return one("secondsfrommidnight", text); };
  const auto days = [](Value value) { return one("days", std::move(value)); };
  const Value monday = S("monday"), unknown = S("someday");
  expectAll(validateTrigger,
            {{"missing", Value(), one("General", kTriggerIsNull)},
             {"no type", Dict({}), one("type", kRequiredButMissing)},
             {"not a dictionary", S("once"), one("type", kRequiredButMissing)},
             {"type 5 alone", typed("x", "date", S("x")).with("type", I(5)),
              one("type", element(kMustBeString))},
             {"once without date", Dict({{"type", S("once")}}), one("date", kRequiredButMissing)},
             {"once string date", typed("once", "date", S("2026")), one("date", kMustBeDate)},
             {"once ignores days", typed("once", "date", D(0)).with("days", S("x")), Value()},
             {"inactive without seconds", Dict({{"type", S("inactive")}}),
              one("secondsofinactivity", kRequiredButMissing)},
             {"inactive above", typed("inactive", "secondsofinactivity", I(86401)),
              one("secondsofinactivity", kAboveMaximum)},
             {"daily without members", Dict({{"type", S("daily")}}),
              Dict({{"secondsfrommidnight", msg(kRequiredButMissing)},
                    {"days", msg(kRequiredButMissing)}})},
             {"86400", at(I(86400)), Value()},
             {"86401", at(I(86401)), seconds(kAboveMaximum)},
             {"3600.5", at(R(3600.5)), seconds(kLostResolution)},
             {"3600.0", at(R(3600.0)), Value()},
             {"int32 minimum", at(I(-2147483648LL)), Value()},
             {"below int32", at(I(-2147483649LL)), seconds(kLostResolution)},
             {"2^31: above wins", at(I(2147483648LL)), seconds(kAboveMaximum)},
             {"86401.5: above wins", at(R(86401.5)), seconds(kAboveMaximum)},
             {"NaN", at(R(std::nan(""))), seconds(kLostResolution)},
             {"+inf", at(R(inf)), seconds(kAboveMaximum)},
             {"string", at(S("3600")), seconds(kMustBeNumber)},
             // The days: later checks replace earlier ones.
             {"all seven",
              on({S("saturday"), S("sunday"), monday, S("tuesday"), S("wednesday"), S("thursday"),
                  S("friday")}),
              Value()},
             {"not an array", daily(I(60), monday), days(msg(kMustBeArray))},
             {"empty", on({}), days(msg(kLessThanOneElement))},
             {"twice", on({monday, monday}), days(msg(kElementsMustBeUnique))},
             {"twice then unknown", on({monday, monday, unknown}), days(element(kNotAKnownValue))},
             {"eight", on(plist::Array(8, monday)), days(msg(kMoreThanSevenElements))},
             {"number then unknown", on({I(1), unknown}), days(element(kNotAKnownValue))},
             {"unknown then number", on({unknown, I(1)}), days(element(kMustBeString))},
             {"capitalised", on({S("Monday")}), days(element(kNotAKnownValue))},
             {"null last", on({monday, Value()}), days(msg(kElementMustNotBeNull))}});
}

TEST(ValidateEvent, EachMemberAlone) {
  const Value event = validEvent("id-1");
  const Value missing = msg(kRequiredButMissing);
  const auto action = [&](Value type) { return event.with("action", Dict({{"type", type}})); };
  expectAll(
      validateEvent,
      {{"missing", Value(), one("General", kEventIsNull)},
       {"valid", event, Value()},
       {"extra member", event.with("colour", A({})), Value()},
       {"no uniqueid", event.without("uniqueid"), one("uniqueid", missing)},
       {"empty uniqueid", event.with("uniqueid", S("")),
        one("uniqueid", element(kBelowMinimumLength))},
       {"no enabled", event.without("enabled"), one("enabled", missing)},
       {"number enabled", event.with("enabled", I(1)), one("enabled", kMustBeBoolean)},
       {"no name", event.without("name"), one("name", missing)},
       {"empty name", event.with("name", S("")), one("name", kBelowMinimumLength)},
       {"long name", event.with("name", S(wide(100, 56))), one("name", kExceedsMaximumLength)},
       {"string trigger", event.with("trigger", S("daily")), one("trigger", kMustBeDictionary)},
       {"array action", event.with("action", A({})), one("action", kMustBeDictionary)},
       {"action without type", event.with("action", Dict({})), one("action", one("type", missing))},
       {"action type 5", action(I(5)), one("action", one("type", element(kMustBeString)))},
       {"action Sleep", action(S("Sleep")), one("action", one("type", element(kNotAKnownValue)))},
       {"start up or wake", action(S("start up or wake")), Value()},
       {"not a dictionary", S("event"),
        Dict({{"uniqueid", missing},
              {"name", missing},
              {"enabled", missing},
              {"trigger", missing},
              {"action", missing}})}});
}

// Every member of a valid event given every other kind of value: never valid.
TEST(ValidateEvent, WrongKindAnywhereIsNeverValid) {
  const Value event = validEvent("id");
  for (const Value& kind :
       {S("x"), I(5), R(0.5), B(true), D(0), Value::data({1}), A({}), Dict({})}) {
    for (const auto& [member, good] : *event.asDictionary()) {
      EXPECT_TRUE(kind.kind() == good.kind() || validateEvent(event.with(member, kind))) << member;
    }
  }
}

TEST(Replies, StatusWithTheValueItselfAndEveryRefusal) {
  EXPECT_EQ(makeResponse(kStatusOk), Dict({{"status", I(200)}}));
  const Value events = A({validEvent("a")});
  const Value reply = makeResponse(kStatusFailed, events);
  EXPECT_EQ(reply, Dict({{"status", I(400)}, {"response", events}}));
  EXPECT_EQ(reply.get("response").identity(), events.identity()) << "held, not copied";
  // The reply table word for word: clients match on these texts.
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
