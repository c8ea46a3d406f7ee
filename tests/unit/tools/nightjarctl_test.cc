#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include "event_json.h"
#include "human_time.h"

namespace nightjar::ctl {
namespace {

// 2027-07-01 10:00:00 UTC, a Thursday.
constexpr long long kNow = 1814436000;

class LocalZone : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
  }
  void TearDown() override {
    unsetenv("TZ");
    tzset();
  }
};

struct AtCase {
  const char* text;
  long long expected;  // Unix seconds; 0 for refused
  const char* error;
};

TEST_F(LocalZone, ReadsTheDatesOfAt) {
  const AtCase cases[] = {
      {"2027-07-01 14:00", kNow + 2 * 3600, ""},
      {"+90m", kNow + 5400, ""},
      {"+1h30m", kNow + 5400, ""},
      {"today 13:00", kNow + 3600, ""},
      {"tomorrow 12:00", kNow + 86400, ""},
      {"2027-10-31 02:30", 1824942600, ""},  // repeated: the earlier, summer instant
      {"2027-03-28 02:30", 0, "the clocks skip from 02:00 to 03:00"},
      {"2027-07-01 11:59", 0, "is in the past"},
      {"2027-02-30 10:00", 0, "is not a date"},
      {"+0s", 0, "is in the past"},
      {"soon", 0, "is not a date"},
  };
  for (const AtCase& c : cases) {
    std::string error;
    const std::optional<long long> at = parseAt(c.text, kNow, error);
    EXPECT_EQ(at.value_or(0), c.expected) << c.text;
    EXPECT_NE(error.find(c.error), std::string::npos) << c.text << ": " << error;
  }
}

TEST_F(LocalZone, ReadsDurationsClocksAndDays) {
  EXPECT_EQ(parseDuration("90"), 90);
  EXPECT_EQ(parseDuration("1d2h3m4s"), 93784);
  for (const char* bad : {"", "10x", "1h30", "m", "-5m", "9999999999s"})
    EXPECT_FALSE(parseDuration(bad)) << bad;
  EXPECT_EQ(parseClock("22:30"), 81000);
  EXPECT_FALSE(parseClock("24:00"));
  EXPECT_EQ(formatDuration(5400), "1h30m");

  std::string error;
  using Days = std::vector<std::string>;
  EXPECT_EQ(parseDays("weekends", error), (Days{"saturday", "sunday"}));
  EXPECT_EQ(parseDays("fri-mon", error), (Days{"monday", "friday", "saturday", "sunday"}));
  EXPECT_EQ(parseDays("wed,mon", error), (Days{"monday", "wednesday"}));
  EXPECT_FALSE(parseDays("mon,fry", error));
  EXPECT_NE(error.find("\"fry\" is not a day"), std::string::npos);

  // Thursday 12:00 local: the next Monday-only 07:00 is four days on.
  EXPECT_EQ(nextDaily(7 * 3600, {"monday"}, kNow), kNow + 4 * 86400 - 5 * 3600);
}

TEST(EventJson, RoundTripsEveryKind) {
  const plist::Value event = plist::Value::dictionary({
      {"name", plist::Value::string("Nightly")},
      {"count", plist::Value::integer(3)},
      {"weight", plist::Value::real(1.5)},
      {"whole", plist::Value::real(2.0)},
      {"enabled", plist::Value::boolean(true)},
      {"date", plist::Value::date(819763200.25)},
      {"site", plist::Value::data({0, 1, 2})},
      {"days", plist::Value::array({plist::Value::string("monday")})},
  });
  const nlohmann::ordered_json json = toJson(event);
  EXPECT_EQ(json.dump(),
            R"({"count":3,"date":"2026-12-24T00:00:00.25Z","days":["monday"],"enabled":true,)"
            R"("name":"Nightly","site":{"base64":"AAEC"},"weight":1.5,"whole":2.0})");
  std::string error;
  const plist::Value back = fromJson(json, error);
  EXPECT_EQ(back, event);
  EXPECT_TRUE(back.get("whole").isReal());
  EXPECT_TRUE(back.get("count").isInteger());
  EXPECT_FALSE(fromJson(nlohmann::ordered_json::parse(R"({"a":[null]})"), error));
  EXPECT_EQ(error, "a[0]: null and numbers beyond 64 bits have no place in an event");
}

}  // namespace
}  // namespace nightjar::ctl
