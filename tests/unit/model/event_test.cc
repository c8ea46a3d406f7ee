#include "model/event.h"

#include <gtest/gtest.h>

#include <cmath>

#include "model_testing.h"

namespace nightjar::model {
namespace {

using namespace testing;
using plist::Value;

TEST(EventAccessors, AnswerTheMemberOrNothing) {
  const Value event = validEvent("id-1");
  EXPECT_EQ(eventUniqueID(event), S("id-1"));
  EXPECT_EQ(eventActionType(event), S("sleep"));
  EXPECT_EQ(eventTriggerType(event.with("trigger", S("daily"))), Value()) << "not a dictionary";
  EXPECT_TRUE(eventIsEnabled(event));
  EXPECT_FALSE(eventIsEnabled(event.without("enabled")));
  EXPECT_FALSE(eventIsEnabled(event.with("enabled", I(1))));
}

std::weak_ordering byName(Value a, Value b) {
  const auto record = [](Value name) { return name ? Dict({{"name", name}}) : Dict({}); };
  return compareEventsByKey(record(a), record(b), "name");
}

TEST(CompareEventsByKey, StringsByUtf16UnitDatesByTimeAbsentLast) {
  const auto less = std::weak_ordering::less;
  const auto equal = std::weak_ordering::equivalent;
  EXPECT_EQ(byName(S("Zulu"), S("alpha")), less) << "upper case before lower case";
  EXPECT_EQ(byName(S("ABC"), S("abc")), less) << "case matters";
  EXPECT_EQ(byName(S("abc"), S("abc")), equal);
  // U+FF5E is above the surrogates in UTF-16 but below U+1F600 in UTF-8 bytes.
  EXPECT_EQ(byName(S("\xF0\x9F\x98\x80"), S("\xEF\xBD\x9E")), less);
  EXPECT_EQ(byName(D(10), D(20)), less);
  EXPECT_EQ(byName(I(1), I(2)), equal) << "numbers carry no order";
  EXPECT_EQ(byName(S("z"), Value()), less) << "absent last";
  EXPECT_EQ(byName(Value(), Value()), equal);
}

// Sorting with an order that is not a strict weak order is undefined, so
// mixed kinds and NaN dates must still give one.
TEST(CompareEventsByKey, MixedKindsStillTotallyOrdered) {
  const std::vector<Value> values = {S("b"),          D(5),    I(3), Value(), S("a"), D(1),
                                     D(std::nan("")), B(false)};
  for (const Value& a : values) {
    for (const Value& b : values) {
      EXPECT_EQ(byName(a, b), 0 <=> byName(b, a)) << "antisymmetric";
      for (const Value& c : values) {
        EXPECT_TRUE(!(byName(a, b) < 0 && byName(b, c) < 0) || byName(a, c) < 0) << "transitive";
      }
    }
  }
}

TEST(CopyPublicEvents, DropsTopLevelPrivateKeysAndSortsByKey) {
  const Value trigger = Dict({{"type", S("once")}, {"_nested", I(1)}});
  const Value held = Dict({{"name", S("n")},
                           {"metadatatriggerdate", D(3)},
                           {"_DateTimeQueueController.Trigger.Date", D(3)},
                           {"_", I(0)},
                           {"trigger", trigger}});
  EXPECT_EQ(copyPublicEvents(A({held, S("not an event")})),
            A({Dict({{"name", S("n")}, {"metadatatriggerdate", D(3)}, {"trigger", trigger}}),
               S("not an event")}));
  EXPECT_EQ(copyPublicEvents(Value()), Value());
  // Sorted by a key, missing last.
  const Value b = validEvent("1", "beta"), a = validEvent("4", "alpha");
  const Value unnamed = validEvent("2").without("name"), upper = validEvent("3", "Zeta");
  EXPECT_EQ(copyPublicEvents(A({b, unnamed, upper, a}), "name"), A({upper, a, b, unnamed}));
  EXPECT_EQ(copyPublicEvents(A({b, unnamed, upper, a})), A({b, unnamed, upper, a}));
  // The key is read from the public copy: a private key orders nothing.
  EXPECT_EQ(copyPublicEvents(A({b.with("_order", I(2)), a.with("_order", I(1))}), "_order"),
            A({b, a}));
}

}  // namespace
}  // namespace nightjar::model
