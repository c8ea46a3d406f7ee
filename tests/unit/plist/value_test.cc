#include "plist/value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <limits>

#include "plist/describe.h"

namespace nightjar::plist {
namespace {

Value sampleDictionary() {
  return Value::dictionary({{"a", Value::integer(1)}, {"b", Value::string("x")}});
}

// Reals are never truncated; dates and booleans are not numbers.
TEST(ValueTest, TypedViewsAnswerOnlyForTheirKind) {
  EXPECT_EQ(Value::integer(5).numberAsDouble(), 5.0);
  EXPECT_EQ(Value::integer(5).asBoolean(), std::nullopt);
  EXPECT_EQ(Value::integer(5).asString(), nullptr);
  EXPECT_EQ(Value::real(2.5).asInteger(), std::nullopt);
  EXPECT_EQ(Value::date(10.0).numberAsDouble(), std::nullopt);
  EXPECT_NE(Value::date(10.0), Value::real(10.0));
  EXPECT_NE(Value::boolean(true), Value::integer(1));
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

TEST(ValueTest, AbsentMembersAndNoneReadAsNone) {
  const Value none;
  EXPECT_FALSE(none);
  EXPECT_NE(none, Value::string(""));
  EXPECT_NE(none, Value::integer(0));
  EXPECT_NE(none, Value::boolean(false));
  EXPECT_EQ(none.count(), 0u);
  EXPECT_TRUE(none.get("a").isNone());
  EXPECT_TRUE(sampleDictionary().get("zz").isNone());
  EXPECT_TRUE(sampleDictionary().at(0).isNone());
  const Value array = Value::array({Value::integer(7)});
  EXPECT_EQ(array.at(0), Value::integer(7));
  EXPECT_TRUE(array.at(1).isNone());
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

TEST(DescribeTest, Scalars) {
  EXPECT_EQ(describeValue(Value()), "(null)");
  EXPECT_EQ(describeValue(Value::string("a %d é")), "\"a %d é\"");
  EXPECT_EQ(describeValue(Value::real(900)), "900.000000");
  EXPECT_EQ(describeValue(Value::real(-0.5)), "-0.500000");
  EXPECT_EQ(describeValue(Value::integer(-9000000000)), "-9000000000");
  EXPECT_EQ(describeValue(Value::boolean(true)), "1");
  EXPECT_EQ(describeValue(Value::boolean(false)), "0");
  EXPECT_EQ(describeValue(Value::string("1")), "\"1\"");
  EXPECT_EQ(describeValue(Value::data(Bytes(32, 0))), "\"32 bytes of data\"");
}

TEST(DescribeTest, Containers) {
  EXPECT_EQ(describeValue(Value::dictionary({{"uniqueid", Value::integer(7)}})),
            "{\"uniqueid\"=>7}");
  EXPECT_EQ(describeValue(Value::array({})), "[]");
  EXPECT_EQ(describeValue(Value::dictionary({})), "{}");
  Value nested = Value::dictionary({
      {"b", Value::array({Value::integer(1), Value::string("x"), Value::array({})})},
      {"a", Value::dictionary({{"on", Value::boolean(false)}})},
  });
  EXPECT_EQ(describeValue(nested), "{\"a\"=>{\"on\"=>0},\"b\"=>[1,\"x\",[]]}");
}

// Sets the zone for the test's span, and back to none after it.
void useZone(const char* zone) {
  if (zone) {
    setenv("TZ", zone, 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
}

TEST(DescribeTest, DatesInLocalTimeWithUnpaddedDay) {
  const AbsoluteTime nov3 = 815389500.0;  // 2026-11-03 09:05:00 UTC
  useZone("UTC0");
  EXPECT_EQ(describeValue(Value::date(nov3)), "\"2026 Nov 3 09:05:00\"");
  EXPECT_EQ(describeValue(Value::date(nov3 + 0.9)), "\"2026 Nov 3 09:05:00\"");
  useZone("EST5");
  EXPECT_EQ(describeValue(Value::array({Value::date(nov3)})), "[\"2026 Nov 3 04:05:00\"]");
  EXPECT_EQ(describeValue(Value::date(NAN)), "");
  useZone(nullptr);
}

// Invalid bytes count one unit each.
TEST(Utf16Test, LengthCountsCodeUnits) {
  const std::pair<const char*, std::size_t> cases[] = {
      {"", 0},
      {"abc", 3},
      {"\xC3\xA9", 1},          // é
      {"\xE2\x82\xAC", 1},      // €
      {"\xF0\x9F\x98\x80", 2},  // 😀 outside the basic plane
      {"a\xF0\x9F\x98\x80z", 4},
      {"\xFF", 1},
      {"\xC3", 1},              // truncated sequence
      {"\xF0\x9F\x98", 3},      // truncated 4-byte sequence
      {"\xC0\xAF", 2},          // overlong '/'
      {"\xED\xA0\x80", 3},      // encoded surrogate
      {"\xF4\x90\x80\x80", 4},  // above U+10FFFF
  };
  for (const auto& [text, units] : cases)
    EXPECT_EQ(utf16Length(text), units) << text;
}

TEST(Utf16Test, CompareOrdersAsUtf16CodeUnits) {
  EXPECT_EQ(compareUtf16("abc", "abc"), 0);
  EXPECT_LT(compareUtf16("ab", "abc"), 0);
  EXPECT_GT(compareUtf16("b", "abc"), 0);
  EXPECT_LT(compareUtf16("a", "\xC3\xA9"), 0);
  // U+1F600 is D83D DE00 in UTF-16 and sorts below U+FF01, unlike in code point order.
  EXPECT_LT(compareUtf16("\xF0\x9F\x98\x80", "\xEF\xBC\x81"), 0);
  EXPECT_GT(compareUtf16("\xEF\xBC\x81", "\xF0\x9F\x98\x80"), 0);
  // Below the surrogates it still sorts above the basic plane's lower part.
  EXPECT_GT(compareUtf16("\xF0\x9F\x98\x80", "\xED\x9F\xBF"), 0);  // U+D7FF
}

TEST(Utf16Test, CompareToleratesInvalidBytes) {
  EXPECT_EQ(compareUtf16("\xFF", "\xFF"), 0);
  EXPECT_GT(compareUtf16("\xFF", "\xFE"), 0);
  EXPECT_LT(compareUtf16("a\xC3", "a\xC3\xA9"), 0);
}

}  // namespace
}  // namespace nightjar::plist
