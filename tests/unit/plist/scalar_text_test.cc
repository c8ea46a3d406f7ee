#include "plist/scalar_text.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "plist/base64.h"

namespace nightjar::plist {
namespace {

constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

TEST(ScalarTextTest, IntegersInDecimalAndHex) {
  EXPECT_EQ(parseIntegerText("-42"), -42);
  EXPECT_EQ(parseIntegerText("+42"), 42);
  EXPECT_EQ(parseIntegerText("0x1F"), 31);
  EXPECT_EQ(parseIntegerText("-0X10"), -16);
  EXPECT_EQ(parseIntegerText("9223372036854775807"), kMax);
  EXPECT_EQ(parseIntegerText("-9223372036854775808"), kMin);
  for (const char* bad : {"", "-", "+", "0x", "1.5", "12a", " 1", "--1", "9223372036854775808",
                          "-9223372036854775809", "0x8000000000000000", "99999999999999999999"}) {
    EXPECT_EQ(parseIntegerText(bad), std::nullopt) << bad;
  }
}

TEST(ScalarTextTest, RealsReadBackExactly) {
  EXPECT_EQ(parseRealText("+2e3"), 2000.0);
  EXPECT_EQ(parseRealText("-0.25"), -0.25);
  EXPECT_EQ(parseRealText("+infinity"), INFINITY);
  EXPECT_EQ(parseRealText("-infinity"), -INFINITY);
  EXPECT_EQ(parseRealText("inf"), INFINITY);
  EXPECT_TRUE(std::isnan(parseRealText("nan").value()));
  for (const char* bad : {"", "+", "1,5", "1.5x", "+-1", "0x10", "1e999", "abc"}) {
    EXPECT_EQ(parseRealText(bad), std::nullopt) << bad;
  }
  for (double number : {0.1, -1.0 / 3.0, 1e300, 5e-324, 900.0, -0.0, 123456789.123456789}) {
    const std::string text = formatRealText(number);
    EXPECT_EQ(parseRealText(text), number) << text;
  }
  EXPECT_EQ(formatRealText(NAN), "nan");
  EXPECT_EQ(formatRealText(INFINITY), "+infinity");
  EXPECT_EQ(formatRealText(-INFINITY), "-infinity");
}

TEST(ScalarTextTest, DatesInUtc) {
  EXPECT_EQ(parseDateText("1970-01-01T00:00:00Z"), -kAbsoluteTimeIntervalSince1970);
  EXPECT_EQ(parseDateText("2024-02-29T12:30:15Z"), 730902615.0);
  EXPECT_EQ(formatDateText(730902615.9), "2024-02-29T12:30:15Z");  // floored
  EXPECT_EQ(formatDateText(-0.5), "2000-12-31T23:59:59Z");
  EXPECT_EQ(formatDateText(-1e300), "0000-01-01T00:00:00Z");
  EXPECT_EQ(formatDateText(1e300), "9999-12-31T23:59:59Z");
  EXPECT_EQ(formatDateText(NAN), "2001-01-01T00:00:00Z");
  for (const char* bad :
       {"2026-13-01T00:00:00Z", "2026-00-10T00:00:00Z", "2023-02-29T00:00:00Z",
        "2026-04-31T00:00:00Z", "2026-01-01T24:00:00Z", "2026-01-01T00:60:00Z",
        "2026-01-01T00:00:60Z", "2026-01-01 00:00:00Z", "2026-01-01T00:00:00",
        "2026-1-01T00:00:00Z", "2026-01-01T00:00:00+01:00", "20x6-01-01T00:00:00Z"}) {
    EXPECT_EQ(parseDateText(bad), std::nullopt) << bad;
  }
  for (const char* text : {"0000-01-01T00:00:00Z", "0001-03-01T00:00:00Z", "1900-02-28T23:59:59Z",
                           "2000-02-29T00:00:00Z", "9999-12-31T23:59:59Z"}) {
    EXPECT_EQ(formatDateText(parseDateText(text).value()), text);
  }
}

TEST(Base64Test, EncodesInLinesAndDecodesStrictly) {
  EXPECT_EQ(encodeBase64({}, 76, "\t"), "");
  EXPECT_EQ(encodeBase64({'f', 'o', 'o', 'b'}, 76, "\t"), "\tZm9vYg==\n");
  EXPECT_EQ(encodeBase64(Bytes(6, 0xFF), 4, ""), "////\n////\n");
  EXPECT_EQ(decodeBase64(" Zm9v\n\tYmE=\r\n"), (Bytes{'f', 'o', 'o', 'b', 'a'}));
  EXPECT_EQ(decodeBase64(""), Bytes{});
  for (const char* bad :
       {"Zm9", "Zm9vY", "Zm=v", "Z===", "Zg==Zg==", "Zm9v!", "Zg=", "Zm9v====="}) {
    EXPECT_EQ(decodeBase64(bad), std::nullopt) << bad;
  }
}

}  // namespace
}  // namespace nightjar::plist
