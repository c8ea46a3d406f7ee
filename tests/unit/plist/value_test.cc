#include "plist/value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace nightjar::plist {
namespace {

Value sampleDictionary() {
  return Value::dictionary({{"a", Value::integer(1)}, {"b", Value::string("x")}});
}

TEST(ValueTest, NoneIsDistinctFromEveryKind) {
  Value none;
  EXPECT_TRUE(none.isNone());
  EXPECT_FALSE(none);
  EXPECT_EQ(none, Value());
  EXPECT_NE(none, Value::string(""));
  EXPECT_NE(none, Value::integer(0));
  EXPECT_NE(none, Value::boolean(false));
  EXPECT_EQ(none.count(), 0u);
  EXPECT_TRUE(none.get("a").isNone());
}

TEST(ValueTest, TypedViewsAnswerOnlyForTheirKind) {
  Value integer = Value::integer(5);
  EXPECT_EQ(integer.kind(), Kind::Integer);
  EXPECT_EQ(integer.asInteger(), 5);
  EXPECT_EQ(integer.numberAsDouble(), 5.0);
  EXPECT_EQ(integer.asBoolean(), std::nullopt);
  EXPECT_EQ(integer.asString(), nullptr);

  Value real = Value::real(2.5);
  EXPECT_TRUE(real.isNumber());
  EXPECT_EQ(real.asInteger(), std::nullopt);  // reals are never truncated
  EXPECT_EQ(real.numberAsDouble(), 2.5);

  Value date = Value::date(10.0);
  EXPECT_EQ(date.kind(), Kind::Date);
  EXPECT_EQ(date.asDate(), 10.0);
  EXPECT_EQ(date.numberAsDouble(), std::nullopt);
  EXPECT_NE(date, Value::real(10.0));  // a date is not a number

  EXPECT_EQ(Value::boolean(true).asBoolean(), true);
  EXPECT_NE(Value::boolean(true), Value::integer(1));
  EXPECT_EQ(*Value::data({1, 2}).asData(), (Bytes{1, 2}));
  EXPECT_EQ(Value::array({Value::integer(1)}).kind(), Kind::Array);
}

TEST(ValueTest, NumbersCompareByExactNumericValue) {
  EXPECT_EQ(Value::integer(3), Value::real(3.0));
  EXPECT_EQ(Value::real(3.0), Value::integer(3));
  EXPECT_NE(Value::integer(3), Value::real(3.5));
  // 2^53 + 1 is not a double; converting it would round to 2^53 and compare equal.
  constexpr std::int64_t kTwoTo53 = std::int64_t{1} << 53;
  EXPECT_NE(Value::integer(kTwoTo53 + 1), Value::real(static_cast<double>(kTwoTo53)));
  EXPECT_EQ(Value::integer(kTwoTo53), Value::real(static_cast<double>(kTwoTo53)));
  // 2^63 as a double lies just beyond int64; it must not wrap to INT64_MIN.
  EXPECT_NE(Value::integer(std::numeric_limits<std::int64_t>::min()), Value::real(9.3e18));
  EXPECT_EQ(Value::integer(std::numeric_limits<std::int64_t>::min()), Value::real(-0x1p63));
  EXPECT_NE(Value::integer(0), Value::real(std::nan("")));
  EXPECT_NE(Value::integer(0), Value::real(INFINITY));
}

TEST(ValueTest, ContainersCompareDeeply) {
  EXPECT_EQ(sampleDictionary(), sampleDictionary());
  EXPECT_NE(sampleDictionary(), sampleDictionary().with("b", Value::string("y")));
  Value nested = Value::array({sampleDictionary(), Value::real(1.0)});
  EXPECT_EQ(nested, Value::array({sampleDictionary(), Value::integer(1)}));
  EXPECT_NE(nested, Value::array({sampleDictionary()}));
}

TEST(ValueTest, AccessorsOfContainers) {
  Value dict = sampleDictionary();
  EXPECT_EQ(dict.count(), 2u);
  EXPECT_EQ(dict.get("a"), Value::integer(1));
  EXPECT_TRUE(dict.get("zz").isNone());
  Value array = Value::array({Value::integer(7)});
  EXPECT_EQ(array.at(0), Value::integer(7));
  EXPECT_TRUE(array.at(1).isNone());
  EXPECT_TRUE(dict.at(0).isNone());
  EXPECT_TRUE(array.get("a").isNone());
}

TEST(ValueTest, WithAndWithoutBuildCopiesAndLeaveTheOriginal) {
  Value original = sampleDictionary();
  Value added = original.with("c", Value::boolean(true));
  Value replaced = original.with("a", Value::integer(2));
  Value removed = original.without("a");
  EXPECT_EQ(original, sampleDictionary());
  EXPECT_EQ(added.count(), 3u);
  EXPECT_EQ(replaced.get("a"), Value::integer(2));
  EXPECT_EQ(removed.count(), 1u);
  EXPECT_TRUE(removed.get("a").isNone());
  // Removing an absent key, or from a non-dictionary, answers the same node.
  EXPECT_EQ(original.without("zz").identity(), original.identity());
  Value text = Value::string("t");
  EXPECT_EQ(text.without("a").identity(), text.identity());
  EXPECT_EQ(text.with("k", Value::integer(1)), Value::dictionary({{"k", Value::integer(1)}}));
}

TEST(ValueTest, CopiesShareTheNode) {
  Value a = sampleDictionary();
  Value b = a;
  EXPECT_EQ(a.identity(), b.identity());
  EXPECT_NE(a.identity(), sampleDictionary().identity());
}

}  // namespace
}  // namespace nightjar::plist
