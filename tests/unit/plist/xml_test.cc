#include "plist/xml.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "plist/base64.h"
#include "plist/scalar_text.h"
#include "plist/xml_toolkit.h"

namespace nightjar::plist {
namespace {

const std::string kHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n";

std::string plist(const std::string& body) {
  return kHead + "<plist version=\"1.0\">" + body + "</plist>";
}

std::string nestedArrays(int depth) {
  std::string open, close;
  for (int i = 0; i < depth; ++i) {
    open += "<array>";
    close += "</array>";
  }
  return plist(open + close);
}

TEST(XmlTest, WritesTheCustomaryLayout) {
  Value value =
      Value::dictionary({{"name", Value::string("a&b\"\r")},
                         {"list", Value::array({Value::integer(1), Value::boolean(true)})}});
  EXPECT_EQ(writeXml(value), kHead +
                                 "<plist version=\"1.0\">\n"
                                 "<dict>\n"
                                 "\t<key>list</key>\n"
                                 "\t<array>\n"
                                 "\t\t<integer>1</integer>\n"
                                 "\t\t<true/>\n"
                                 "\t</array>\n"
                                 "\t<key>name</key>\n"
                                 "\t<string>a&amp;b\"&#13;</string>\n"
                                 "</dict>\n"
                                 "</plist>\n");
  EXPECT_EQ(writeXml(Value()), "");
  EXPECT_EQ(escapeXmlText("<\"&\r>", XmlQuote::Escaped), "&lt;&quot;&amp;&#13;&gt;");
}

TEST(XmlTest, EveryKindRoundTrips) {
  const Value original = Value::dictionary({
      {"string", Value::string("a & b < c > d \"q\" 'é' \r\n\t 😀")},
      {"empty", Value::string("")},
      {"integer", Value::integer(-9223372036854775807 - 1)},
      {"real", Value::real(0.1)},
      {"infinity", Value::real(-INFINITY)},
      {"true", Value::boolean(true)},
      {"false", Value::boolean(false)},
      {"date", Value::date(784111777.0)},
      {"data", Value::data(Bytes(100, 0xA5))},
      {"nodata", Value::data({})},
      {"array", Value::array({Value::integer(1), Value::array({}), Value::dictionary({})})},
      {"k<&>", Value::dictionary({{"inner", Value::string("x")}})},
  });
  const std::string text = writeXml(original);
  const Value parsed = parseXml(text);
  EXPECT_EQ(parsed, original) << text;
  EXPECT_EQ(writeXml(parsed), text);
  // Each kind also stands alone as the root value.
  for (const auto& [key, member] : *original.asDictionary()) {
    EXPECT_EQ(parseXml(writeXml(member)), member) << key;
  }
  // Kinds are kept and dates floored.
  const Value kinds = parseXml(writeXml(Value::array({Value::real(3.0), Value::date(12.75)})));
  EXPECT_TRUE(kinds.at(0).isReal());
  EXPECT_EQ(kinds.at(1).asDate(), 12.0);
  EXPECT_TRUE(std::isnan(*parseXml(writeXml(Value::real(NAN))).numberAsDouble()));
}

TEST(XmlTest, AcceptsCommonVariants) {
  EXPECT_EQ(parseXml("<plist><string>x</string></plist>"), Value::string("x"));
  EXPECT_EQ(parseXml("<?xml version=\"1.0\"?><plist version=\"1.0\"><true/></plist>"),
            Value::boolean(true));
  EXPECT_EQ(parseXml(plist("<integer> 0x10 </integer>")), Value::integer(16));
  EXPECT_EQ(parseXml(plist("<string>&lt;&#65;&#x42;<![CDATA[<c>]]></string>")),
            Value::string("<AB<c>"));
  EXPECT_EQ(parseXml(plist("<!-- note --><dict>\n <key>a</key> <real>1e3</real></dict>")),
            Value::dictionary({{"a", Value::real(1000)}}));
}

TEST(XmlTest, NestingAndSizeLimits) {
  EXPECT_TRUE(parseXml(nestedArrays(128)).isArray());
  EXPECT_TRUE(parseXml(nestedArrays(129)).isNone());
  EXPECT_TRUE(parseXml(nestedArrays(3), XmlLimits{.maxDepth = 2}).isNone());
  const std::string document = plist("<string>0123456789</string>");
  EXPECT_TRUE(parseXml(document, XmlLimits{.maxBytes = document.size()}).isString());
  EXPECT_TRUE(parseXml(document, XmlLimits{.maxBytes = document.size() - 1}).isNone());
}

TEST(XmlTest, RefusesHostileAndMalformedDocuments) {
  const std::string laughs =
      "<?xml version=\"1.0\"?><!DOCTYPE plist [<!ENTITY a \"aaaaaaaaaa\">"
      "<!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\"><!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;\">]>"
      "<plist><string>&c;</string></plist>";
  const std::pair<const char*, std::string> cases[] = {
      {"empty", ""},
      {"billion laughs", laughs},
      {"external entity",
       "<!DOCTYPE plist SYSTEM \"x.dtd\" [<!ENTITY e SYSTEM \"file:///etc/passwd\">]>"
       "<plist><string>&e;</string></plist>"},
      {"undeclared entity", kHead + "<plist><string>&e;</string></plist>"},
      {"wrong doctype", "<!DOCTYPE html><plist><true/></plist>"},
      {"wrong public id",
       "<!DOCTYPE plist PUBLIC \"-//W3C//DTD X//EN\" \"x\"><plist><true/></plist>"},
      {"other encoding", "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><plist><true/></plist>"},
      {"invalid utf-8", plist("<string>\xC3\x28</string>")},
      {"wrong root", "<dict></dict>"},
      {"unknown element", plist("<float>1</float>")},
      {"attribute", plist("<string id=\"1\">x</string>")},
      {"wrong version", "<plist version=\"2.0\"><true/></plist>"},
      {"text in container", plist("<array>x<true/></array>")},
      {"text in boolean", plist("<true>yes</true>")},
      {"child in leaf", plist("<string><true/></string>")},
      {"no value", plist("")},
      {"two root values", plist("<true/><false/>")},
      {"trailing text", "<plist><true/></plist>junk"},
      {"key without value", plist("<dict><key>a</key></dict>")},
      {"value without key", plist("<dict><string>a</string></dict>")},
      {"key in array", plist("<array><key>a</key></array>")},
      {"duplicate key", plist("<dict><key>a</key><true/><key>a</key><false/></dict>")},
      {"nested plist", plist("<array><plist/></array>")},
      {"bad base64", plist("<data>Zm9v!</data>")},
      {"bad date", plist("<date>2026-13-01T00:00:00Z</date>")},
      {"bad integer", plist("<integer>12abc</integer>")},
      {"bad real", plist("<real>1.2.3</real>")},
  };
  for (const auto& [name, document] : cases) {
    EXPECT_TRUE(parseXml(document).isNone()) << name;
  }
}

constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

TEST(ScalarTextTest, IntegersInDecimalAndHexAndRealsReadBack) {
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
  EXPECT_EQ(parseRealText("+2e3"), 2000.0);
  EXPECT_EQ(parseRealText("-0.25"), -0.25);
  EXPECT_EQ(parseRealText("+infinity"), INFINITY);
  EXPECT_EQ(parseRealText("-infinity"), -INFINITY);
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

TEST(ScalarTextTest, DatesInUtcAndBase64InLinesDecodedStrictly) {
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
