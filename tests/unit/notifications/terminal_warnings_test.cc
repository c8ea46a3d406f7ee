#include "notifications/terminal_warnings.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "fakes/fake_terminal_broadcast.h"
#include "notifications/notification_testing.h"

namespace nightjar::notifications::testing {
namespace {

// Dates in the messages are local: the tests set the zone to UTC.
class TerminalWarningsTest : public NotificationControllerTest {
  void SetUp() override {
    NotificationControllerTest::SetUp();
    setenv("TZ", "UTC0", 1);
    tzset();
  }
};

plist::Value eventDoing(const std::string& action) {
  return validEvent("halt", "Nightly off").with("action", Dict({{"type", S(action)}}));
}

enum class Then { Nothing, Cancel, Delay };

// Given an event warned `lead` seconds ahead and what happens next, expect a
// message at each moment, each holding its fragment (none for no message).
TEST_F(TerminalWarningsTest, WritesAtTheWarningAndAMinuteBeforeTheAction) {
  struct Case {
    const char* action;
    double lead;
    Then then;
    std::vector<std::string> fragments;
  };
  const Case cases[] = {
      {"shutdown", 900, Then::Nothing, {"06:28:20 UTC (in 15 minutes)", "06:28:20 UTC (in 60 s"}},
      {"restart", 300, Then::Nothing, {"will restart at", "restart at Sat 2026-05-09 06:18:20"}},
      {"logout", 600, Then::Nothing, {"logged out at", "(in 60 seconds)"}},
      {"sleep", 900, Then::Nothing, {}},
      {"reboot", 900, Then::Nothing, {}},  // no such action
      {"shutdown", 30, Then::Nothing, {"(in 30 seconds)"}},
      {"shutdown", 900, Then::Cancel, {"(in 15 minutes)"}},
      {"shutdown", 900, Then::Delay, {"(in 15 minutes)", "(in 25 minutes)", "06:38:20 UTC (in 60"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.action) + " lead " + std::to_string(c.lead));
    clock_.set(kStart);
    NotificationController* controller = create();
    notificationControllerSetNotifyPeriod(controller, 2000);  // every lead below is inside it
    fakes::FakeTimer& warnTimer = timer();
    auto terminals = std::make_unique<nightjar::testing::FakeTerminalBroadcast>();
    const std::vector<std::string>& written = terminals->written;
    auto warnings =
        TerminalWarnings::create(controller, std::move(terminals), clock_, timers_.timerFactory());
    ASSERT_NE(warnings, nullptr);
    auto add = [&](double lead) {
      notificationControllerAddPending(controller, eventDoing(c.action), clock_.now() + lead);
      warnTimer.fire();  // inside the period: warned at once
    };
    add(c.lead);
    double trigger = kStart + c.lead;
    if (c.then != Then::Nothing)
      notificationControllerRemovePending(controller, S("halt"));
    if (c.then == Then::Delay)
      add((trigger += 600) - clock_.now());
    for (double before : {kFinalTerminalWarningLead + 1, kFinalTerminalWarningLead, 1.0}) {
      clock_.set(trigger - before);
      if (timer().due(clock_.now()))  // the warnings' timer
        timer().fire();
    }
    ASSERT_EQ(written.size(), c.fragments.size());
    for (std::size_t i = 0; i < c.fragments.size(); ++i)
      EXPECT_NE(written[i].find(c.fragments[i]), std::string::npos) << written[i];
    warnings.reset();
    notificationControllerDestroy();
  }
}

TEST_F(TerminalWarningsTest, TheMessageNamesTheEventAndTheDelayCommandWithoutControls) {
  const plist::Value event = eventDoing("shutdown")
                                 .with("name", S("Off\x1b]0;x\x07 \xc2\x9bnow"))
                                 .with("uniqueid", S("a b"));
  EXPECT_EQ(terminalWarningText(event, kStart + 900, kStart),
            "\r\nBroadcast message from nightjard (Sat 2026-05-09 06:13:20 UTC):\r\n\r\n"
            "The system will shut down at Sat 2026-05-09 06:28:20 UTC (in 15 minutes),\r\n"
            "as scheduled by the event \"Off?]0;x? ?now\".\r\n"
            "To put it off by 10 minutes: nightjarctl delay 'a b' 10m\r\n");
}

}  // namespace
}  // namespace nightjar::notifications::testing
