#include "scheduling/event_action.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "fakes/fake_timer.h"
#include "fakes/port_fakes.h"
#include "logging/logging.h"
#include "model/model_testing.h"
#include "monitors/system_monitor.h"
#include "persistence/preferences.h"
#include "plist/describe.h"

namespace nightjar::scheduling {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using namespace model::testing;
using Journal = std::vector<std::string>;

constexpr char kGracestop[] = NIGHTJAR_TOOLS_DIR "/gracestop";
constexpr char kPerch[] = NIGHTJAR_TOOLS_DIR "/perch";

// Everything the module does, in one list: log lines as "<priority> text",
// broadcasts, commands, notices, and the activity count going up and down.
struct JournalSink final : logging::LogSink {
  explicit JournalSink(Journal& journal) : journal(journal) {}
  void write(int priority, std::string_view line) override {
    if (line != "Dening idle sleep request")  // the monitor's own line
      journal.push_back(std::to_string(priority) + " " + std::string(line));
  }
  Journal& journal;
};

// The monitor holds the guard while the activity count is above 0.
struct ActivityGuard final : platform::SleepGuard {
  explicit ActivityGuard(Journal& journal) : journal(journal) {}
  void hold() override { journal.push_back("activity up"); }
  void release() override { journal.push_back("activity down"); }
  Journal& journal;
};

plist::Value event(const std::string& type, const std::string& name = "Nightly") {
  const plist::Value e = Dict({{"name", S(name)},
                               {"uniqueid", S("u-" + name)},
                               {"_DateTimeQueueController.Trigger.Date", D(1000)}});
  return type.empty() ? e : e.with("action", Dict({{"type", S(type)}}));
}

// The lines that open every perform of `e` named `name`.
Journal opening(const plist::Value& e, const std::string& name = "Nightly") {
  return {"activity up", "5 Performing: \"" + name + "\"",
          "7 Performing: " + plist::describeValue(e)};
}

Journal concat(Journal a, const Journal& b, const Journal& c = {}) {
  a.insert(a.end(), b.begin(), b.end());
  a.insert(a.end(), c.begin(), c.end());
  return a;
}

class EventActionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    logging::setLogSink(&sink_);
    monitors::SystemMonitorPorts monitorPorts;
    auto console = std::make_unique<testing::FakeConsoleUserSource>();
    console_ = console.get();
    console_->session = testing::userSession("alice", 1000, 1000);
    monitorPorts.consoleUser = std::move(console);
    monitorPorts.sleepGuard = std::make_unique<ActivityGuard>(journal_);
    ASSERT_TRUE(monitors::systemMonitorCreate(nullptr, std::move(monitorPorts)));
    persistence::preferencesSetStore(&preferences_);
    auto trace = [this](const std::string& line) { journal_.push_back(line); };
    center_.trace = sleep_.trace = commands_.trace = notice_.trace = trace;
    setUp(timers_.timerFactory());
  }
  void TearDown() override {
    eventActionTearDown();
    persistence::preferencesSetStore(nullptr);
    monitors::systemMonitorDestroy(nullptr);
    logging::setLogSink(nullptr);
  }

  void setUp(runloop::TimerFactory timers) {
    EventActionPorts ports;
    ports.broadcasts = &center_;
    ports.sleep = &sleep_;
    ports.commands = &commands_;
    ports.notice = &notice_;
    ports.timers = std::move(timers);
    ports.clock = &clock_;
    eventActionSetUp(std::move(ports));
  }

  void perform(const plist::Value& e, const std::string& label = "done") {
    eventActionPerform(e, [this, label] { journal_.push_back(label); });
  }
  fakes::FakeTimer& pause() { return *timers_.timer(0); }
  bool pausing() { return pause().armed() && !pause().parked(); }

  Journal journal_;
  JournalSink sink_{journal_};
  fakes::FakeClock clock_{5000};
  fakes::FakeTimerFactory timers_{clock_};
  nightjar::testing::FakePreferencesStore preferences_;
  testing::FakeConsoleUserSource* console_ = nullptr;
  testing::FakeDistributedCenter center_;
  testing::FakeSystemSleep sleep_;
  testing::FakeCommandRunner commands_;
  testing::FakeConsoleNotice notice_;
};

TEST(EventActionPredicates, Table) {
  const struct {
    plist::Value event;
    bool wake;
    double lead;
    bool preWake;
    std::optional<std::string_view> powerType;
  } rows[] = {
      {event("wake"), true, 120, false, "wake"},
      {event("start up or wake"), true, 120, false, "wakepoweron"},
      {event("sleep"), false, 0, false, std::nullopt},
      {event("shutdown"), false, 0, true, std::nullopt},
      {event("Wake"), false, 0, true, std::nullopt},
      {event(""), false, 0, true, std::nullopt},
      {plist::Value(), false, 0, true, std::nullopt},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(plist::describeValue(row.event));
    EXPECT_EQ(eventActionIsWakeKind(row.event), row.wake);
    EXPECT_EQ(eventActionLeadTime(row.event), row.lead);
    EXPECT_EQ(eventActionNeedsPreWake(row.event), row.preWake);
    EXPECT_EQ(eventActionPowerEventType(row.event), row.powerType);
  }
}

// Given each carried-out kind, expect: opening lines, "event.willperform", a
// 2-second pause, the action, "event.didperform", the count lowered, then the
// completion; the broadcasts carry the event as given, private keys included.
TEST_F(EventActionTest, EachActionRunsTheWholeSequenceInOrder) {
  const std::vector<std::pair<std::string, std::string>> kinds = {
      {"sleep", "sleep"},
      {"shutdown", std::string(kGracestop) + " -h"},
      {"restart", std::string(kGracestop) + " -r"},
      {"logout", std::string(kPerch) + " -l"},
      {"fast user switch", std::string(kPerch) + " -s"},
      {"dance", ""},  // unknown: announced and paused for, nothing done
  };
  for (const auto& [type, action] : kinds) {
    SCOPED_TRACE(type);
    journal_.clear();
    center_.broadcasts.clear();
    const plist::Value e = event(type);
    perform(e);
    EXPECT_EQ(journal_, concat(opening(e), {"post event.willperform"}));
    ASSERT_TRUE(pausing());
    EXPECT_EQ(pause().nextFireDate(), clock_.now() + 2.0);
    EXPECT_TRUE(eventActionBusy());
    pause().fire();
    Journal rest = {"post event.willperform", action, "post event.didperform", "activity down",
                    "done"};
    if (action.empty())
      rest.erase(rest.begin() + 1);
    EXPECT_EQ(journal_, concat(opening(e), rest));
    for (const auto& broadcast : center_.broadcasts)
      EXPECT_EQ(broadcast.userInfo, e);
    EXPECT_FALSE(eventActionBusy());
  }
}

// The tool's outcome arrives after the perform ended; only a failure is logged.
TEST_F(EventActionTest, FailingToolsRefusedSleepAndAnIgnoredSwitchAreLogged) {
  for (const char* type : {"shutdown", "logout", "restart", "sleep", "sleep"}) {
    perform(event(type));
    pause().fire();
  }
  journal_.clear();
  commands_.exit(1);
  commands_.exit(0);
  commands_.exit(128 + 9);
  EXPECT_THAT(journal_, ElementsAre("3 gracestop error: 1", "3 gracestop error: 137"));
  journal_.clear();
  commands_.spawnError = ENOENT;
  perform(event("fast user switch"));
  pause().fire();
  EXPECT_THAT(journal_, ::testing::Contains("3 perch error: 2"));
  journal_.clear();
  sleep_.answer(0);
  sleep_.answer(EBUSY);
  EXPECT_THAT(journal_, ElementsAre("3 Sleep error: 16"));
  const std::size_t commands = commands_.commands.size();
  console_->session = testing::greeterSession();  // nobody to switch from
  perform(event("fast user switch"));
  pause().fire();
  EXPECT_THAT(journal_, ::testing::Contains("6 Ignored fast user switch - no active user"));
  EXPECT_EQ(commands_.commands.size(), commands);
}

// A perform asked for during another's pause waits its turn, and so does one
// asked for from a completion; none interleaves with another. The idle
// callbacks run once the last has completed, or at once when none is under way.
TEST_F(EventActionTest, PerformsRunOneAfterAnotherInOrderOfAsking) {
  const plist::Value first = event("shutdown", "first"), second = event("wake", "second");
  const plist::Value third = event("logout", "third"), fourth = event("restart", "fourth");
  perform(first, "first done");
  eventActionWhenIdle([&] { journal_.push_back("idle"); });
  perform(second, "second done");
  eventActionPerform(third, [&] {
    journal_.push_back("third done");
    perform(fourth, "fourth done");
  });
  EXPECT_EQ(journal_, concat(opening(first, "first"), {"post event.willperform"}));
  const auto ended = [](const std::string& tool, const std::string& label) {
    return Journal{tool, "post event.didperform", "activity down", label};
  };
  journal_.clear();
  pause().fire();
  EXPECT_EQ(journal_, concat(ended(std::string(kGracestop) + " -h", "first done"),
                             concat(opening(second, "second"),
                                    {"7 IOKit Performing: wake", "activity down", "second done"}),
                             concat(opening(third, "third"), {"post event.willperform"})));
  journal_.clear();
  pause().fire();
  EXPECT_EQ(journal_, concat(ended(std::string(kPerch) + " -l", "third done"),
                             opening(fourth, "fourth"), {"post event.willperform"}));
  journal_.clear();
  pause().fire();
  EXPECT_EQ(journal_, concat(ended(std::string(kGracestop) + " -r", "fourth done"), {"idle"}));
  EXPECT_FALSE(eventActionBusy());
  eventActionWhenIdle([&] { journal_.push_back("idle at once"); });
  EXPECT_EQ(journal_.back(), "idle at once");
}

TEST_F(EventActionTest, ConsoleNotifierShowsTheNoticeForThePauseAndClosesIt) {
  preferences_.setValue(persistence::kConsoleNotifierKey, plist::Value::boolean(true));
  const plist::Value e = event("restart");
  perform(e);
  ASSERT_EQ(notice_.shown.size(), 1u);
  EXPECT_EQ(notice_.shown[0].header, "Scheduled restart has begun");
  EXPECT_EQ(notice_.shown[0].message,
            "An automated restart has begun. This is a previously scheduled event.");
  EXPECT_EQ(notice_.shown[0].seconds, 2.0);
  pause().fire();
  EXPECT_EQ(journal_, concat(opening(e), {"post event.willperform", "notice shown", "notice closed",
                                          std::string(kGracestop) + " -r", "post event.didperform",
                                          "activity down", "done"}));
  // No desktop to show it on: no notice, and the pause all the same.
  journal_.clear();
  notice_.reachable = false;
  perform(e);
  EXPECT_TRUE(pausing());
  pause().fire();
  EXPECT_EQ(notice_.closes, 1);
  EXPECT_THAT(journal_, ::testing::Contains("done"));
}

// Tearing down mid-pause ends the perform: the count goes down, the notice
// closes, and neither that completion nor a waiting perform's nor an idle
// callback runs.
TEST_F(EventActionTest, TearDownDuringThePauseEndsThePerform) {
  preferences_.setValue(persistence::kConsoleNotifierKey, plist::Value::boolean(true));
  perform(event("shutdown"), "first done");
  perform(event("logout"), "second done");
  eventActionWhenIdle([&] { journal_.push_back("idle"); });
  journal_.clear();
  eventActionTearDown();
  EXPECT_THAT(journal_, ElementsAre("notice closed", "activity down"));
  EXPECT_FALSE(eventActionBusy());
  EXPECT_THAT(commands_.commands, IsEmpty());
}

// Without set-up only the completion runs, without an event nothing, without a
// type no broadcast (wake kinds: see the order test); a run loop that cannot
// make the pause timer gets the action without a pause.
TEST_F(EventActionTest, WithoutSetUpEventTypeOrTimer) {
  eventActionTearDown();
  journal_.clear();
  perform(event("shutdown"));
  EXPECT_THAT(journal_, ElementsAre("done"));
  timers_.setFailing(true);
  setUp(timers_.timerFactory());
  journal_.clear();
  perform(plist::Value());
  EXPECT_THAT(journal_, IsEmpty());
  const plist::Value untyped = event("");
  perform(untyped);
  EXPECT_EQ(journal_, concat(opening(untyped), {"activity down", "done"}));
  journal_.clear();
  const plist::Value e = event("shutdown");
  perform(e);
  EXPECT_EQ(journal_, concat(opening(e), {"post event.willperform", std::string(kGracestop) + " -h",
                                          "post event.didperform", "activity down", "done"}));
}

}  // namespace
}  // namespace nightjar::scheduling
