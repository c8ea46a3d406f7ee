#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <string>
#include <vector>

#include "agent_config.h"
#include "warning_text.h"

namespace nightjar::agent {
namespace {

// 2027-07-01 10:00:00 UTC, a Thursday.
constexpr long long kNow = 1814436000;

TEST(AgentText, SaysTheWarningInPlainWords) {
  setenv("TZ", "UTC", 1);
  tzset();
  const std::pair<std::string, std::string> cases[] = {
      {warningSummary("shutdown", kNow + 12 * 3600 + 30 * 60, kNow), "Shutdown at 22:30"},
      {warningSummary("logout", kNow + 20 * 3600, kNow), "Log out at Fri 06:00"},
      {warningSummary("fast user switch", kNow, kNow), "Switch user at 10:00"},
      {warningBody("Nightly", 840), "Nightly: 14 minutes left"},
      {warningBody("Nightly", 841), "Nightly: 15 minutes left"},
      {warningBody("Nightly", 3900), "Nightly: 1 hour 5 minutes left"},
      {warningBody("Nightly", 59), "Nightly: less than a minute left"},
      {finalSummary("restart"), "Restart now"},
      {delayLabel(600), "Delay 10 minutes"},
      {delayLabel(3600), "Delay 1 hour"},
      {delayLabel(5400), "Delay 1 hour 30 minutes"},
      {delayLabel(45), "Delay 45 seconds"},
  };
  for (const auto& [said, expected] : cases)
    EXPECT_EQ(said, expected);
  EXPECT_TRUE(isCritical("logout"));
  EXPECT_FALSE(isCritical("sleep"));
  unsetenv("TZ");
  tzset();
}

TEST(AgentConfig, ReadsTheDelayChoices) {
  const std::pair<std::string, std::vector<long>> cases[] = {
      {"", {600, 3600}},
      {"[delay]\nchoices=5m, 2h\n", {300, 7200}},
      {"# mine\n[delay]\n choices = 30 \n", {30}},
      {"[other]\nchoices=5m\n", {600, 3600}},
      {"[delay]\nchoices=soon,0,2d,1h\n", {3600}},  // not durations, none, more than a day
      {"[delay]\nchoices=1m,1m,2m,3m,4m,5m\n", {60, 120, 180, 240}},
      {"[delay]\nchoices=1m\nchoices=2m\n", {120}},
      {"[delay]\nchoices=\n", {600, 3600}},
  };
  for (const auto& [text, expected] : cases)
    EXPECT_EQ(parseDelayChoices(text), expected) << text;
}

}  // namespace
}  // namespace nightjar::agent
