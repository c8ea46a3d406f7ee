#include <gtest/gtest.h>

#include "plist/value.h"

namespace nightjar::plist {
namespace {

TEST(Utf16Test, LengthCountsCodeUnits) {
  EXPECT_EQ(utf16Length(""), 0u);
  EXPECT_EQ(utf16Length("abc"), 3u);
  EXPECT_EQ(utf16Length("\xC3\xA9"), 1u);          // é
  EXPECT_EQ(utf16Length("\xE2\x82\xAC"), 1u);      // €
  EXPECT_EQ(utf16Length("\xF0\x9F\x98\x80"), 2u);  // 😀 outside the basic plane
  EXPECT_EQ(utf16Length("a\xF0\x9F\x98\x80z"), 4u);
}

TEST(Utf16Test, InvalidBytesCountOneUnitEach) {
  EXPECT_EQ(utf16Length("\xFF"), 1u);
  EXPECT_EQ(utf16Length("\xC3"), 1u);              // truncated sequence
  EXPECT_EQ(utf16Length("\xF0\x9F\x98"), 3u);      // truncated 4-byte sequence
  EXPECT_EQ(utf16Length("\xC0\xAF"), 2u);          // overlong '/'
  EXPECT_EQ(utf16Length("\xED\xA0\x80"), 3u);      // encoded surrogate
  EXPECT_EQ(utf16Length("\xF4\x90\x80\x80"), 4u);  // above U+10FFFF
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
