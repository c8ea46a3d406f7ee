#include "plist/value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <limits>

#include "plist/describe.h"

namespace nightjar::plist {
namespace {

using V = Value;

V sampleDictionary() {
  return V::dictionary({{"a", V::integer(1)}, {"b", V::string("x")}});
}

// Reals are never truncated; dates and booleans are not numbers.
TEST(ValueTest, TypedViewsAnswerOnlyForTheirKind) {
  EXPECT_EQ(V::integer(5).numberAsDouble(), 5.0);
  EXPECT_EQ(V::integer(5).asBoolean(), std::nullopt);
  EXPECT_EQ(V::integer(5).asString(), nullptr);
  EXPECT_EQ(V::real(2.5).asInteger(), std::nullopt);
  EXPECT_EQ(V::date(10.0).numberAsDouble(), std::nullopt);
}

// Numbers compare by exact value, across integer and real; containers deeply.
TEST(ValueTest, Equality) {
  constexpr std::int64_t k2To53 = std::int64_t{1} << 53;
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  const V nested = V::array({sampleDictionary(), V::real(1.0)});
  const struct {
    V a, b;
    bool equal;
  } rows[] = {
      {V::integer(3), V::real(3.0), true},
      {V::real(3.0), V::integer(3), true},
      {V::integer(3), V::real(3.5), false},
      // 2^53 + 1 is not a double: converting it would round to 2^53.
      {V::integer(k2To53 + 1), V::real(static_cast<double>(k2To53)), false},
      {V::integer(k2To53), V::real(static_cast<double>(k2To53)), true},
      // 2^63 as a double lies just beyond int64: it must not wrap to INT64_MIN.
      {V::integer(kMin), V::real(9.3e18), false},
      {V::integer(kMin), V::real(-0x1p63), true},
      {V::integer(0), V::real(std::nan("")), false},
      {V::date(10.0), V::real(10.0), false},
      {V::boolean(true), V::integer(1), false},
      {V(), V::string(""), false},
      {sampleDictionary(), sampleDictionary(), true},
      {sampleDictionary(), sampleDictionary().with("b", V::string("y")), false},
      {nested, V::array({sampleDictionary(), V::integer(1)}), true},
      {nested, V::array({sampleDictionary()}), false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.a == row.b, row.equal) << describeValue(row.a) << " " << describeValue(row.b);
  }
}

TEST(ValueTest, AbsentMembersAndNoneReadAsNone) {
  const V array = V::array({V::integer(7)});
  EXPECT_FALSE(V());
  EXPECT_EQ(V().count(), 0u);
  EXPECT_TRUE(V().get("a").isNone());
  EXPECT_TRUE(sampleDictionary().get("zz").isNone());
  EXPECT_TRUE(sampleDictionary().at(0).isNone());
  EXPECT_EQ(array.at(0), V::integer(7));
  EXPECT_TRUE(array.at(1).isNone());
  EXPECT_TRUE(array.get("a").isNone());
}

TEST(ValueTest, WithAndWithoutBuildCopiesAndLeaveTheOriginal) {
  const V original = sampleDictionary();
  EXPECT_EQ(original.with("c", V::boolean(true)).count(), 3u);
  EXPECT_EQ(original.with("a", V::integer(2)).get("a"), V::integer(2));
  EXPECT_EQ(original.without("a"), V::dictionary({{"b", V::string("x")}}));
  EXPECT_EQ(original, sampleDictionary());
  // Removing an absent key, or from a non-dictionary, answers the same node.
  EXPECT_EQ(original.without("zz").identity(), original.identity());
  const V text = V::string("t");
  EXPECT_EQ(text.without("a").identity(), text.identity());
  EXPECT_EQ(text.with("k", V::integer(1)), V::dictionary({{"k", V::integer(1)}}));
}

TEST(DescribeTest, ScalarsAndContainers) {
  const std::pair<V, const char*> rows[] = {
      {V(), "(null)"},
      {V::string("a %d é"), "\"a %d é\""},
      {V::real(900), "900.000000"},
      {V::integer(-9000000000), "-9000000000"},
      {V::boolean(true), "1"},
      {V::data(Bytes(32, 0)), "\"32 bytes of data\""},
      {V::array({}), "[]"},
      {V::dictionary({}), "{}"},
      {V::dictionary({{"b", V::array({V::integer(1), V::string("x"), V::array({})})},
                      {"a", V::dictionary({{"on", V::boolean(false)}})}}),
       "{\"a\"=>{\"on\"=>0},\"b\"=>[1,\"x\",[]]}"},
  };
  for (const auto& [value, text] : rows) {
    EXPECT_EQ(describeValue(value), text);
  }
}

// Sets the zone for the test's span, and back to none after it.
void useZone(const char* zone) {
  zone ? setenv("TZ", zone, 1) : unsetenv("TZ");
  tzset();
}

TEST(DescribeTest, DatesInLocalTimeWithUnpaddedDay) {
  const AbsoluteTime nov3 = 815389500.0;  // 2026-11-03 09:05:00 UTC
  useZone("UTC0");
  EXPECT_EQ(describeValue(V::date(nov3 + 0.9)), "\"2026 Nov 3 09:05:00\"");
  useZone("EST5");
  EXPECT_EQ(describeValue(V::array({V::date(nov3)})), "[\"2026 Nov 3 04:05:00\"]");
  EXPECT_EQ(describeValue(V::date(NAN)), "");
  useZone(nullptr);
}

// Invalid bytes count one unit each.
TEST(Utf16Test, LengthCountsCodeUnits) {
  const std::pair<const char*, std::size_t> cases[] = {
      {"", 0},
      {"abc", 3},
      {"\xC3\xA9", 1},            // é
      {"\xE2\x82\xAC", 1},        // €
      {"a\xF0\x9F\x98\x80z", 4},  // U+1F600 outside the basic plane
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

// U+1F600 is D83D DE00 in UTF-16: below U+FF01, unlike in code point order,
// yet above U+D7FF.
TEST(Utf16Test, CompareOrdersAsUtf16CodeUnitsAndToleratesInvalidBytes) {
  const struct {
    const char *a, *b;
    int sign;
  } rows[] = {
      {"abc", "abc", 0},
      {"ab", "abc", -1},
      {"b", "abc", 1},
      {"a", "\xC3\xA9", -1},
      {"\xF0\x9F\x98\x80", "\xEF\xBC\x81", -1},
      {"\xEF\xBC\x81", "\xF0\x9F\x98\x80", 1},
      {"\xF0\x9F\x98\x80", "\xED\x9F\xBF", 1},
      {"\xFF", "\xFF", 0},
      {"\xFF", "\xFE", 1},
      {"a\xC3", "a\xC3\xA9", -1},
  };
  for (const auto& row : rows) {
    const int result = compareUtf16(row.a, row.b);
    EXPECT_EQ((result > 0) - (result < 0), row.sign) << row.a << " " << row.b;
  }
}

}  // namespace
}  // namespace nightjar::plist
