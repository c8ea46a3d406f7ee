#include "plist/describe.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <ctime>

namespace nightjar::plist {
namespace {

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

class DescribeDateTest : public testing::Test {
 protected:
  void SetUp() override {
    if (const char* zone = std::getenv("TZ")) {
      saved_ = zone;
    }
  }
  void TearDown() override {
    if (saved_) {
      setenv("TZ", saved_->c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }
  static void useZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  std::optional<std::string> saved_;
};

TEST_F(DescribeDateTest, LocalTimeWithUnpaddedDay) {
  const AbsoluteTime nov3 = 815389500.0;  // 2026-11-03 09:05:00 UTC
  useZone("UTC0");
  EXPECT_EQ(describeValue(Value::date(nov3)), "\"2026 Nov 3 09:05:00\"");
  EXPECT_EQ(describeValue(Value::date(nov3 + 0.9)), "\"2026 Nov 3 09:05:00\"");
  useZone("EST5");
  EXPECT_EQ(describeValue(Value::array({Value::date(nov3)})), "[\"2026 Nov 3 04:05:00\"]");
  EXPECT_EQ(describeValue(Value::date(NAN)), "");
}

}  // namespace
}  // namespace nightjar::plist
