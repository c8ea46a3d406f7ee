#include "core/service_status.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <ctime>

namespace nightjar::core {
namespace {

// 2026-11-25 10:00:00 UTC.
constexpr std::time_t kNow = 1795600800;
constexpr plist::AbsoluteTime kTonight = kNow - plist::kAbsoluteTimeIntervalSince1970 + 12.5 * 3600;

TEST(ServiceStatusTest, CountThenTheNextEventTodayOrOnItsDate) {
  setenv("TZ", "UTC", 1);
  tzset();
  struct Case {
    int count;
    std::string name;
    plist::AbsoluteTime date;
    bool hasNext;
    std::string expected;
  };
  const Case cases[] = {
      {0, "", 0, false, "0 events"},
      {1, "x", 0, false, "1 event"},
      {12, "Nightly off", kTonight, true, "12 events; next: Nightly off at 22:30"},
      {2, "Later", kTonight + 86400, true, "2 events; next: Later on 2026-11-26 at 22:30"},
      {1, "a\nMAINPID=1", kTonight, true, "1 event; next: a MAINPID=1 at 22:30"},
      // Cut to 64 bytes, and never inside a UTF-8 sequence.
      {1, std::string(62, 'n') + "\u20ac", kTonight, true,
       "1 event; next: " + std::string(62, 'n') + " at 22:30"},
  };
  for (const Case& c : cases)
    EXPECT_EQ(serviceStatusText(c.count, c.name, c.date, c.hasNext, kNow), c.expected) << c.name;
}

}  // namespace
}  // namespace nightjar::core
