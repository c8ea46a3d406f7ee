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

// Reals are never truncated, dates and booleans are no numbers, numbers
// compare by exact value across integer and real, containers deeply.
TEST(ValueTest, TypedViewsAndEquality) {
  EXPECT_EQ(V::integer(5).asBoolean(), std::nullopt);
  EXPECT_EQ(V::real(2.5).asInteger(), std::nullopt);
  EXPECT_EQ(V::date(10.0).numberAsDouble(), std::nullopt);
  constexpr std::int64_t k2To53 = std::int64_t{1} << 53;
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  EXPECT_EQ(V::integer(3), V::real(3.0));
  EXPECT_EQ(V::real(3.0), V::integer(3));
  EXPECT_NE(V::integer(3), V::real(3.5));
  // 2^53 + 1 is not a double: converting it would round to 2^53.
  EXPECT_NE(V::integer(k2To53 + 1), V::real(static_cast<double>(k2To53)));
  EXPECT_EQ(V::integer(k2To53), V::real(static_cast<double>(k2To53)));
  // 2^63 as a double lies just beyond int64: it must not wrap to INT64_MIN.
  EXPECT_NE(V::integer(kMin), V::real(9.3e18));
  EXPECT_EQ(V::integer(kMin), V::real(-0x1p63));
  EXPECT_NE(V::integer(0), V::real(std::nan("")));
  EXPECT_NE(V::date(10.0), V::real(10.0));
  EXPECT_NE(V::boolean(true), V::integer(1));
  EXPECT_NE(V(), V::string(""));
  EXPECT_EQ(sampleDictionary(), sampleDictionary());
  EXPECT_NE(sampleDictionary(), sampleDictionary().with("b", V::string("y")));
  const V nested = V::array({sampleDictionary(), V::real(1.0)});
  EXPECT_EQ(nested, V::array({sampleDictionary(), V::integer(1)}));
  EXPECT_NE(nested, V::array({sampleDictionary()}));
}

TEST(ValueTest, MembersReadAsNoneWhenAbsentAndCopiesLeaveTheOriginal) {
  const V array = V::array({V::integer(7)});
  EXPECT_FALSE(V());
  EXPECT_EQ(V().count(), 0u);
  EXPECT_TRUE(V().get("a").isNone());
  EXPECT_TRUE(sampleDictionary().get("zz").isNone());
  EXPECT_TRUE(sampleDictionary().at(0).isNone());
  EXPECT_EQ(array.at(0), V::integer(7));
  EXPECT_TRUE(array.at(1).isNone());
  EXPECT_TRUE(array.get("a").isNone());
  // With and without build copies and leave the original.
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
  EXPECT_EQ(describeValue(V()), "(null)");
  EXPECT_EQ(describeValue(V::string("a %d é")), "\"a %d é\"");
  EXPECT_EQ(describeValue(V::real(900)), "900.000000");
  EXPECT_EQ(describeValue(V::integer(-9000000000)), "-9000000000");
  EXPECT_EQ(describeValue(V::boolean(true)), "1");
  EXPECT_EQ(describeValue(V::data(Bytes(32, 0))), "\"32 bytes of data\"");
  EXPECT_EQ(describeValue(V::dictionary({})), "{}");
  EXPECT_EQ(
      describeValue(V::dictionary({{"b", V::array({V::integer(1), V::string("x"), V::array({})})},
                                   {"a", V::dictionary({{"on", V::boolean(false)}})}})),
      "{\"a\"=>{\"on\"=>0},\"b\"=>[1,\"x\",[]]}");
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
  EXPECT_EQ(utf16Length("\xC3\xA9"), 1u);            // é
  EXPECT_EQ(utf16Length("\xE2\x82\xAC"), 1u);        // €
  EXPECT_EQ(utf16Length("a\xF0\x9F\x98\x80z"), 4u);  // U+1F600 outside the basic plane
  EXPECT_EQ(utf16Length("\xFF"), 1u);
  EXPECT_EQ(utf16Length("\xC3"), 1u);              // truncated sequence
  EXPECT_EQ(utf16Length("\xF0\x9F\x98"), 3u);      // truncated 4-byte sequence
  EXPECT_EQ(utf16Length("\xC0\xAF"), 2u);          // overlong '/'
  EXPECT_EQ(utf16Length("\xED\xA0\x80"), 3u);      // encoded surrogate
  EXPECT_EQ(utf16Length("\xF4\x90\x80\x80"), 4u);  // above U+10FFFF
}

TEST(Utf16Test, CompareOrdersAsUtf16CodeUnitsAndToleratesInvalidBytes) {
  EXPECT_LT(compareUtf16("ab", "abc"), 0);
  EXPECT_GT(compareUtf16("b", "abc"), 0);
  // U+1F600 is D83D DE00 in UTF-16: below U+FF01, unlike in code point order, yet above U+D7FF.
  EXPECT_LT(compareUtf16("\xF0\x9F\x98\x80", "\xEF\xBC\x81"), 0);
  EXPECT_GT(compareUtf16("\xEF\xBC\x81", "\xF0\x9F\x98\x80"), 0);
  EXPECT_GT(compareUtf16("\xF0\x9F\x98\x80", "\xED\x9F\xBF"), 0);
  EXPECT_EQ(compareUtf16("\xFF", "\xFF"), 0);
  EXPECT_GT(compareUtf16("\xFF", "\xFE"), 0);
  EXPECT_LT(compareUtf16("a\xC3", "a\xC3\xA9"), 0);
}

}  // namespace
}  // namespace nightjar::plist
