// The notification controller over the ports fixture, and the terminal
// warnings that follow its pending list.
#include "notifications/notification_controller.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <string>
#include <vector>

#include "fakes/port_fakes.h"
#include "fakes/ports_fixture.h"
#include "model/model_testing.h"
#include "notifications/terminal_warnings.h"
#include "plist/describe.h"

namespace nightjar::notifications::testing {
namespace {

using namespace nightjar::model::testing;

constexpr plist::AbsoluteTime kStart = nightjar::testing::kPortsStart;
constexpr double kPeriod = 900;

class NotificationControllerTest : public nightjar::testing::PortsFixture {
 public:
  void TearDown() override {
    notificationControllerDestroy();
    PortsFixture::TearDown();
  }

  NotificationController* create() {
    notificationControllerCreate(clock_, timers_.timerFactory(),
                                 [this](const plist::Value& id) { rescheduled_.push_back(id); });
    return notificationControllerGet();
  }
  fakes::FakeTimer& timer() { return *timers_.last(); }
  plist::Value pending(NotificationController* controller, const std::string& id) {
    return model::eventQueueFind(notificationControllerPendingQueue(controller), S(id));
  }
  std::vector<std::string> pendingIds(NotificationController* controller) {
    return idsOf(model::eventQueueCopyEvents(notificationControllerPendingQueue(controller)));
  }

  std::vector<plist::Value> rescheduled_, cancels_;
  std::vector<std::pair<plist::Value, double>> delays_;
};

// An entry without a trigger date (a hand-edited saved state) waits last.
TEST_F(NotificationControllerTest, WarnsInOrderOfWarnTimeAndArmsForTheNext) {
  NotificationController* controller = create();
  RecordingLog log;
  PostRecorder posts(controller);
  notificationControllerAddPending(controller, validEvent("undated"), kStart);
  notificationControllerApplyState(
      controller, A({pending(controller, "undated").without("metadatatriggerdate")}));
  notificationControllerAddPending(controller, validEvent("late"), kStart + 7200);
  notificationControllerAddPending(controller, validEvent("soon", "Nightly sleep"), kStart + 300);
  EXPECT_EQ(pendingIds(controller), (std::vector<std::string>{"soon", "late", "undated"}));
  // Inside the period already: the warn time has passed.
  EXPECT_DOUBLE_EQ(timer().nextFireDate(), kStart + 300 - kPeriod);
  const plist::Value held = pending(controller, "soon");
  posts.posts.clear();
  timer().fire();
  EXPECT_EQ(posts.posts, (std::vector<Post>{{"notifications.notify", Dict({{"Parameter", held}})},
                                            {"notifications.pending", plist::Value()}}));
  ASSERT_EQ(log.lines.size(), 2u);
  EXPECT_EQ(log.lines[0],
            std::make_pair(LOG_NOTICE, std::string("Issued notification: Nightly sleep")));
  EXPECT_EQ(pending(controller, "soon").get("metadatanotified"), D(kStart));
  EXPECT_EQ(pendingIds(controller), (std::vector<std::string>{"late", "undated", "soon"}));
  EXPECT_DOUBLE_EQ(timer().nextFireDate(), kStart + 7200 - kPeriod);
  // Fired at the warn time, not later (or early, a clock stepped back): re-armed.
  posts.posts.clear();
  clock_.set(kStart + 7200 - kPeriod);
  timer().fire();
  EXPECT_TRUE(posts.posts.empty());
  EXPECT_DOUBLE_EQ(timer().nextFireDate(), kStart + 7200 - kPeriod);
  clock_.set(kStart + 7200);
  timer().fire();
  EXPECT_EQ(pendingIds(controller), (std::vector<std::string>{"undated", "soon", "late"}));
  EXPECT_TRUE(timer().parked());
}

// Queued again (its next occurrence), an event is unwarned and timed once more;
// a wake past its warn time issues the warning that fell due during sleep.
TEST_F(NotificationControllerTest, AllWarnedLeavesTheTimerAloneUntilTheListChanges) {
  NotificationController* controller = create();
  notificationControllerAddPending(controller, validEvent("a"), kStart + 60);
  timer().fire();
  PostRecorder posts(controller);
  const int sets = timer().setCount();
  clock_.advance(5000);
  timer().fire();
  postWake();
  EXPECT_TRUE(posts.posts.empty());
  EXPECT_EQ(timer().setCount(), sets);
  EXPECT_TRUE(timer().parked());
  notificationControllerAddPending(controller, pending(controller, "a"), kStart + 86400);
  EXPECT_TRUE(pending(controller, "a").get("metadatanotified").isNone());
  EXPECT_DOUBLE_EQ(timer().nextFireDate(), kStart + 86400 - kPeriod);
  clock_.set(kStart + 86400 - 600);
  postWake();
  EXPECT_EQ(posts.names(),
            (std::vector<std::string>{"notifications.pending", "notifications.notify",
                                      "notifications.pending"}));
}

TEST_F(NotificationControllerTest, AForcedPeriodWinsSilently) {
  preferences_.force("notificationcontroller.notifyperiod", R(120));
  NotificationController* controller = create();
  EXPECT_EQ(notificationControllerGetNotifyPeriod(controller), 120);
  notificationControllerAddPending(controller, validEvent("a"), kStart + 3600);
  PostRecorder posts(controller);
  preferences_.force("notificationcontroller.notifyperiod", R(60));
  notificationControllerSetNotifyPeriod(controller, 600);
  EXPECT_TRUE(posts.posts.empty());
  EXPECT_EQ(notificationControllerGetNotifyPeriod(controller), 60);
  // The timer is not armed again: its next firing issues nothing and re-arms
  // for the period in force.
  EXPECT_DOUBLE_EQ(timer().nextFireDate(), kStart + 3480);
  EXPECT_EQ(timer().setCount(), 1);
  timer().fire();
  EXPECT_TRUE(posts.posts.empty());
  EXPECT_DOUBLE_EQ(timer().nextFireDate(), kStart + 3540);
}

TEST_F(NotificationControllerTest, PendingViewShowsOnceTriggersWithoutPrivateKeys) {
  NotificationController* controller = create();
  const plist::Value daily = validEvent("d").with("_DateTimeQueueController.Trigger.Date", D(1));
  notificationControllerAddPending(controller, daily, kStart + 7200);
  notificationControllerAddPending(controller, onceEvent("o", kStart + 60), kStart + 60);
  timer().fire();  // "o" is warned and moves behind "d" in the list, not in the view
  ASSERT_EQ(pendingIds(controller), (std::vector<std::string>{"d", "o"}));
  const plist::Value view = notificationControllerCopyPendingView(controller);
  const plist::Value expected = A({
      onceEvent("o", kStart + 60)
          .with("metadatatriggerdate", D(kStart + 60))
          .with("metadatanotified", D(kStart)),
      validEvent("d")
          .with("trigger", Dict({{"type", S("once")}, {"date", D(kStart + 7200)}}))
          .with("metadatatriggerdate", D(kStart + 7200)),
  });
  EXPECT_EQ(view, expected);
  // The list itself keeps the private key: the owner's copy is not the view.
  EXPECT_FALSE(pending(controller, "d").get("_DateTimeQueueController.Trigger.Date").isNone());
}

TEST_F(NotificationControllerTest, StateRoundTripKeepsWarnedFlagsAndPrivateKeys) {
  NotificationController* controller = create();
  notificationControllerAddPending(controller, validEvent("a").with("_X.Y.Z", I(1)), kStart + 60);
  notificationControllerAddPending(controller, validEvent("b"), kStart + 7200);
  timer().fire();  // warns "a"
  const plist::Value state = notificationControllerCopyState(controller);
  ASSERT_EQ(state.count(), 2u);
  EXPECT_EQ(state.at(1).get("_X.Y.Z"), I(1));
  EXPECT_EQ(state.at(1).get("metadatanotified"), D(kStart));
  notificationControllerDestroy();
  controller = create();
  PostRecorder posts(controller);
  notificationControllerApplyState(controller, A({state.at(0), state.at(1), S("junk")}));
  EXPECT_EQ(notificationControllerCopyState(controller), state);
  EXPECT_EQ(posts.names(), std::vector<std::string>{"notifications.pending"});
  EXPECT_DOUBLE_EQ(timer().nextFireDate(), kStart + 7200 - kPeriod);
}

TEST_F(NotificationControllerTest, AnEntryDroppedByANotifyObserverStaysDropped) {
  NotificationController* controller = create();
  notificationControllerAddPending(controller, validEvent("a"), kStart + 60);
  int observer = 0;
  runloop::localCenter().addObserver(
      &observer, [controller](auto...) { notificationControllerRemovePending(controller, S("a")); },
      std::string("notifications.notify"), controller);
  timer().fire();
  runloop::localCenter().removeObserver(&observer);
  EXPECT_TRUE(pending(controller, "a").isNone());
  EXPECT_TRUE(timer().parked());
}

// A stored period that is no finite number reads as the default.
TEST_F(NotificationControllerTest, OneControllerPerProcessAndNoneWithoutATimer) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  for (double stored : {nan, std::numeric_limits<double>::infinity(), 45.0}) {
    preferences_.setValue("notificationcontroller.notifyperiod", R(stored));
    NotificationController* first = create();
    EXPECT_EQ(create(), first);
    EXPECT_EQ(notificationControllerGetNotifyPeriod(first),
              std::isfinite(stored) ? stored : kPeriod);
    notificationControllerDestroy();
  }
  EXPECT_EQ(notificationControllerGet(), nullptr);
  EXPECT_EQ(runloop::localCenter().observationCount(), 0u);
  timers_.setFailing(true);
  EXPECT_EQ(create(), nullptr);
  // Absent: every operation is harmless and answers the default.
  notificationControllerAddPending(nullptr, validEvent("a"), kStart);
  EXPECT_EQ(notificationControllerGetNotifyPeriod(nullptr), kPeriod);
  EXPECT_TRUE(notificationControllerCopyPendingView(nullptr).isNone());
  EXPECT_TRUE(notificationControllerCopyState(nullptr).isNone());
}

// The replies of the request operations; the dispatcher tests answer them
// without a controller.
const plist::Value kOk = Dict({{"status", I(200)}});
const plist::Value kFailed = Dict({{"status", I(400)}});

// Cancel, delay and reset reach a pending event's handler, and only one.
TEST_F(NotificationControllerTest, RequestsAnswerAsTheirTableSays) {
  NotificationController* controller = create();
  notificationControllerAddPending(controller, validEvent("a"), kStart + 3600);
  const plist::Value held = pending(controller, "a");
  EXPECT_EQ(notificationRequestCancel(controller, S("a")), kOk);  // no handlers yet
  EXPECT_EQ(notificationRequestDelay(controller, S("a"), I(60)), kOk);
  NotificationHandlers handlers;  // recording into delays_ and cancels_
  handlers.cancel = [](NotificationController*, const plist::Value& event, void* context) {
    static_cast<NotificationControllerTest*>(context)->cancels_.push_back(event);
  };
  handlers.delay = [](NotificationController*, const plist::Value& event, double s, void* self) {
    static_cast<NotificationControllerTest*>(self)->delays_.emplace_back(event, s);
  };
  handlers.context = this;
  notificationControllerRegisterHandlers(controller, handlers);
  EXPECT_EQ(
      notificationRequestPending(controller),
      Dict({{"status", I(200)}, {"response", notificationControllerCopyPendingView(controller)}}));
  EXPECT_EQ(notificationRequestNotifyPeriod(controller),
            Dict({{"status", I(200)}, {"response", R(900)}}));
  EXPECT_EQ(notificationRequestCancel(controller, S("a")), kOk);
  EXPECT_EQ(notificationRequestCancel(controller, S("not pending")), kOk);
  EXPECT_EQ(notificationRequestCancel(controller, {}), kFailed);
  EXPECT_EQ(notificationRequestReset(controller, S("a")), kOk);
  EXPECT_EQ(notificationRequestReset(controller, S("not pending")), kOk);
  EXPECT_EQ(notificationRequestReset(controller, {}), kFailed);
  EXPECT_EQ(notificationRequestDelay(controller, S("a"), I(60)), kOk);
  EXPECT_EQ(notificationRequestDelay(controller, S("a"), R(90.7)), kOk);  // read as 90
  EXPECT_EQ(notificationRequestDelay(controller, S("a"), I(0)), kOk);     // does nothing
  EXPECT_EQ(notificationRequestDelay(controller, S("not pending"), I(60)), kOk);
  EXPECT_EQ(notificationRequestDelay(controller, {}, I(60)), kFailed);
  EXPECT_EQ(notificationRequestDelay(controller, S("a"), I(std::int64_t{1} << 40)), kFailed);
  EXPECT_EQ(notificationRequestDelay(controller, S("a"), {}), kFailed);
  EXPECT_EQ(notificationRequestDelay(controller, S("a"), R(1e300)), kFailed);
  EXPECT_EQ(cancels_, std::vector<plist::Value>{held});
  EXPECT_EQ(rescheduled_, std::vector<plist::Value>{S("a")});
  EXPECT_EQ(delays_, (std::vector<std::pair<plist::Value, double>>{{held, 60}, {held, 90}}));
  const plist::Value invalidSeconds = Dict({{"error", I(405)}, {"reason", S("Invalid seconds")}});
  EXPECT_EQ(notificationRequestSetNotifyPeriod(controller, I((std::int64_t{1} << 53) + 1)),
            invalidSeconds);
  EXPECT_EQ(
      notificationRequestSetNotifyPeriod(controller, R(std::numeric_limits<double>::quiet_NaN())),
      invalidSeconds);
  EXPECT_EQ(notificationRequestSetNotifyPeriod(controller, S("60")), invalidSeconds);
  PostRecorder posts(controller);
  EXPECT_EQ(notificationRequestSetNotifyPeriod(controller, R(kPeriod)), kOk);  // the current value
  notificationControllerSetNotifyPeriod(controller, std::numeric_limits<double>::infinity());
  EXPECT_TRUE(posts.posts.empty());
  EXPECT_EQ(preferences_.writes(), 0);
  EXPECT_EQ(notificationRequestSetNotifyPeriod(controller, R(61.5)), kOk);
  EXPECT_EQ(posts.posts, (std::vector<Post>{{"notifications.notifyperiod", plist::Value()}}));
  EXPECT_EQ(preferences_.disk().get("notificationcontroller.notifyperiod"), R(61.5));
  EXPECT_DOUBLE_EQ(timer().nextFireDate(), kStart + 3600 - 61.5);
  EXPECT_EQ(notificationRequestSetNotifyPeriod(controller, I(-30)), kOk);
  EXPECT_EQ(notificationControllerGetNotifyPeriod(controller), -30);
}

// Dates in the messages are local: each test sets the zone to UTC.
using TerminalWarningsTest = NotificationControllerTest;

plist::Value eventDoing(const std::string& action) {
  return validEvent("halt", "Nightly off").with("action", Dict({{"type", S(action)}}));
}

enum class Then { Nothing, Cancel, Delay };

// Given an event warned `lead` seconds ahead and what happens next, expect a
// message at each moment, each holding its fragment (none for no message).
TEST_F(TerminalWarningsTest, WritesAtTheWarningAndAMinuteBeforeTheAction) {
  setenv("TZ", "UTC0", 1);
  tzset();
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
      {"reboot", 900, Then::Nothing, {}},  // no such action: never listed
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
  setenv("TZ", "UTC0", 1);
  tzset();
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
