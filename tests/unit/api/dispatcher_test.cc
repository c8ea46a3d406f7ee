#include "api/dispatcher.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "api/authorization.h"
#include "api/perform_wait.h"
#include "api/refusal_log.h"
#include "api/request_handler.h"
#include "api/scheduler_requests.h"
#include "fakes/port_fakes.h"
#include "fakes/ports_fixture.h"
#include "model/event_list.h"
#include "model/model_testing.h"
#include "model/reply.h"
#include "model/validation.h"
#include "notifications/notification_controller.h"
#include "plist/describe.h"
#include "scheduling/event_action.h"
#include "scheduling/event_scheduler.h"
#include "scheduling/queue_controller.h"
#include "state/saved_state.h"
#include "state/saved_state_size.h"
#include "wire/authorization_testing.h"

namespace nightjar::api::testing {
namespace {

using namespace nightjar::model::testing;
namespace reason = model::refusal;

// An authorization of the right shape for a dispatcher that checks no form.
const auto authorizationForm = [](std::size_t size = kAuthorizationFormSize) {
  return Value::data(plist::Bytes(size, 'Q'));
};
// { "Request": name, "Authorization": form } plus "Parameter" when given.
const auto request = [](const std::string& name, Value parameter = {}) {
  Value built = Dict({{"Request", S(name)}, {"Authorization", authorizationForm()}});
  return parameter ? built.with("Parameter", std::move(parameter)) : built;
};
const auto refusal = [](const model::ErrorReason& why, Value detail = {}) {
  return model::makeError(why, std::move(detail));
};
const auto response = [](std::int32_t status, Value value = {}) {
  return model::makeResponse(status, std::move(value));
};
const auto invalid = [](Value detail) {
  return refusal(reason::kInvalidParameter, std::move(detail));
};
const auto delay = [](Value seconds, Value id = S("a")) {
  return Dict({{"seconds", std::move(seconds)}, {"uniqueid", std::move(id)}});
};
const auto held = [] { return model::eventListGet()->events().members(); };

// One row of a reply table.
struct Case {
  std::string label;
  Value request;
  Value expected;
};

// The real event list, queue controller list, event scheduler and
// notification controller over the ports' fakes, and an authorization that
// grants all but `refused_` and records every right it was asked for.
class DispatchTest : public nightjar::testing::PortsFixture {
 protected:
  void SetUp() override {
    PortsFixture::SetUp();
    model::eventListSetUp();
    scheduling::queueControllerListSetUp();
    scheduling::eventSchedulerSetUp(model::eventListGet(), scheduling::queueControllerListGet());
    notifications::notificationControllerCreate(clock_, timers_.timerFactory(),
                                                [](const Value&) {});
  }
  void TearDown() override {
    scheduling::eventActionTearDown();
    performWaitReset();
    notifications::notificationControllerDestroy();
    scheduling::eventSchedulerTearDown();
    scheduling::queueControllerListTearDown();
    model::eventListTearDown();
    PortsFixture::TearDown();
  }

  Value dispatch(const Value& request) {
    return dispatchRequestNow(request, [this](const Value&, std::string_view right) {
      asked_.emplace_back(right);
      return !refused_.contains(std::string(right));
    });
  }
  // Each exchange is logged once.
  void expect(const std::vector<Case>& cases) {
    for (const Case& each : cases) {
      SCOPED_TRACE(each.label);
      log_.lines.clear();
      const Value reply = dispatch(each.request);
      EXPECT_EQ(reply, each.expected);
      EXPECT_EQ(log_.lines, (std::vector<std::pair<int, std::string>>{
                                {LOG_ERR, "API: " + plist::describeValue(each.request) + " > " +
                                              plist::describeValue(reply)}}));
    }
  }

  RecordingLog log_;
  std::set<std::string> refused_;
  std::vector<std::string> asked_;
};

// Malformed requests and authorizations are refused without asking; then the
// lower-case right is asked about before object and action are looked up.
TEST_F(DispatchTest, FormThenRightThenObjectAndAction) {
  const Value version = request("build.version");
  const Value unauthorized = refusal(reason::kRequestMustBeAuthorized);
  const Value twoParts = refusal(reason::kRequestMustHaveTwoComponents);
  refused_ = {"quillon.nightjar.nosuch.thing", "quillon.nightjar.scheduler.set"};
  expect({
      {"no request", Value(), refusal(reason::kRequestIsNull)},
      {"no Request member", version.without("Request"), refusal(reason::kRequestIsRequired)},
      {"not a dictionary", S("build.version"), refusal(reason::kRequestIsRequired)},
      {"Request a number", version.with("Request", I(5)), refusal(reason::kRequestMustBeString)},
      {"one part", request("scheduler"), twoParts},
      {"three parts", request("scheduler.events.x"), twoParts},
      {"a bad Request beats a missing authorization", Dict({{"Request", S("")}}), twoParts},
      {"no authorization", version.without("Authorization"), unauthorized},
      {"31 bytes", version.with("Authorization", authorizationForm(31)), unauthorized},
      {"33 bytes", version.with("Authorization", authorizationForm(33)), unauthorized},
      {"a string of 32", version.with("Authorization", S(std::string(32, 'x'))), unauthorized},
      {"the Angstrom sign", request("build.\xE2\x84\xAB"), unauthorized},
      {"a cut Kelvin sign", request("build.\xE2\x84"), unauthorized},
      {"a NUL", request(std::string("build.a\0b", 9)), unauthorized},
      {"capitals: right granted, object unknown", request("Scheduler.Events"),
       refusal(reason::kUnknownObject)},
      {"Kelvin sign lowers to k", request("build.\xE2\x84\xAAill"),
       refusal(reason::kUnknownElement)},
      {"empty parts", request("."), refusal(reason::kUnknownObject)},
      {"unknown object, refused", request("nosuch.thing"), unauthorized},
      {"unknown object, granted", request("nosuch.other"), refusal(reason::kUnknownObject)},
      {"a refused right beats a bad parameter", request("scheduler.set", I(1)), unauthorized},
  });
  EXPECT_EQ(asked_, (std::vector<std::string>{
                        "quillon.nightjar.scheduler.events", "quillon.nightjar.build.kill",
                        "quillon.nightjar..", "quillon.nightjar.nosuch.thing",
                        "quillon.nightjar.nosuch.other", "quillon.nightjar.scheduler.set"}));
}

// Read-only, a missing parameter and an unknown action are checked alike for
// every action; one row of each proves them.
TEST_F(DispatchTest, BuildAndNotificationRequestsAndTheirParameterChecks) {
  const Value secondsMissing = Dict({{"General", S("DelayBySeconds is NULL.")}});
  expect({
      {"version", request("build.version"), response(200, S("nightjard v3.7.3"))},
      {"version is read only", request("build.version", Dict({})), refusal(reason::kReadOnly)},
      {"actions match case", request("build.Version"), refusal(reason::kUnknownElement)},
      {"pending", request("notifications.pending"), response(200, A({}))},
      {"notifyperiod", request("notifications.notifyperiod"), response(200, R(900))},
      {"cancel without", request("notifications.cancel"), refusal(reason::kParameterMissing)},
      {"cancel a number", request("notifications.cancel", I(5)),
       invalid(Dict({{"uniqueid", element("Must be a CFStringRef")}}))},
      {"cancel", request("notifications.cancel", S("a")), response(200)},
      {"reset", request("notifications.reset", S("a")), response(200)},
      {"delay not a dictionary", request("notifications.delay", S("a")),
       invalid(Dict({{"Parameter", S("Must be a CFDictionaryRef")}}))},
      {"delay empty", request("notifications.delay", Dict({})),
       invalid(Dict(
           {{"seconds", secondsMissing}, {"uniqueid", Dict({{"General", S("ID is NULL.")}})}}))},
      {"delay above maximum and three entries",
       request("notifications.delay", delay(I(86401)).with("extra", I(1))),
       invalid(Dict({{"seconds", element("Above maximum of 86400")},
                     {"Parameter", S("Parameter exceeds 2 entries")}}))},
      {"delay seconds a string", request("notifications.delay", delay(S("60"))),
       invalid(Dict({{"seconds", element("Must be a CFNumberRef")}}))},
      {"delay fraction just above the maximum", request("notifications.delay", delay(R(86400.5))),
       invalid(Dict({{"seconds", element("Conversion to integer lost resolution")}}))},
      {"delay beyond 32 bits: the later check wins",
       request("notifications.delay", delay(I(std::int64_t{1} << 40))),
       invalid(Dict({{"seconds", element("Above maximum of 86400")}}))},
      {"delay the maximum", request("notifications.delay", delay(I(86400))), response(200)},
      {"delay negative", request("notifications.delay", delay(I(-5))), response(200)},
      {"setnotifyperiod a string", request("notifications.setnotifyperiod", S("60")),
       invalid(Dict({{"seconds", S("Must be a CFNumberRef")}}))},
      {"setnotifyperiod inexact", request("notifications.setnotifyperiod", I(9007199254740993)),
       refusal(reason::kInvalidSeconds)},
      {"setnotifyperiod", request("notifications.setnotifyperiod", I(600)), response(200)},
      {"notifyperiod follows", request("notifications.notifyperiod"), response(200, R(600))},
  });
}

TEST_F(DispatchTest, SchedulerRequestsAndTheirParameterChecks) {
  const Value event = validEvent("a");
  PostRecorder posts(scheduling::eventSchedulerGet());
  expect({
      {"enabled", request("scheduler.enabled"), response(200, B(true))},
      {"setenabled a number", request("scheduler.setenabled", I(1)),
       invalid(Dict({{"enabled", S("Must be a CFBooleanRef")}}))},
      {"setenabled", request("scheduler.setenabled", B(false)), response(200)},
      {"enabled follows", request("scheduler.enabled"), response(200, B(false))},
      {"setenabled again", request("scheduler.setenabled", B(true)), response(200)},
      {"events, empty", request("scheduler.events"), response(200, A({}))},
      {"setevents a string", request("scheduler.setevents", S("x")),
       invalid(Dict({{"events", S("Must be a CFArrayRef")}}))},
      {"set a string", request("scheduler.set", S("x")),
       invalid(Dict({{"event", S("Must be a CFDictionaryRef")}}))},
      {"set without action", request("scheduler.set", event.without("action")),
       invalid(Dict({{"event", Dict({{"action", S("Required but missing")}})}}))},
      {"set", request("scheduler.set", event), response(200)},
      {"events", request("scheduler.events"), response(200, A({event}))},
      {"remove empty", request("scheduler.remove", S("")),
       invalid(Dict({{"uniqueid", element("Below minimum length of 1")}}))},
      {"remove unknown", request("scheduler.remove", S("nothere")), response(400)},
      {"remove", request("scheduler.remove", S("a")), response(200)},
  });
  const std::vector<std::string> names = posts.names();
  EXPECT_EQ(std::count(names.begin(), names.end(), "scheduler.enabled"), 2);
}

// The authorization may answer later, as a polkit round trip does. Given a
// perform paused before its action, expect: reads and malformed requests
// answered at once; writes kept, then checked, carried out and answered in
// arrival order once the perform has completed; settled (the moment a stop
// takes effect) only when the last of them is answered.
TEST_F(DispatchTest, WritesDuringAPerformWaitForItAndAreAnsweredInArrivalOrder) {
  fakes::FakeTimerFactory pauseTimers{clock_};
  scheduling::eventActionSetUp({.timers = pauseTimers.timerFactory(), .clock = &clock_});
  std::vector<std::string> journal;
  std::vector<AuthorizationDone> checks;
  const Authorize now = [&](const Value&, std::string right, AuthorizationDone done) {
    journal.push_back("check " + right.substr(kRightPrefix.size()));
    done(true);
  };
  const Authorize later = [&](const Value&, std::string, AuthorizationDone done) {
    checks.push_back(std::move(done));
  };
  const auto send = [&](const std::string& label, const Value& request, const Authorize& check) {
    dispatchRequest(request, check, [&journal, label](Value reply) {
      journal.push_back(label + " " + plist::describeValue(reply));
    });
  };
  // Its check answers only once the perform is under way.
  send("early set", request("scheduler.set", validEvent("early")), later);
  scheduling::eventActionPerform(Dict({{"name", S("n")}, {"action", Dict({{"type", S("x")}})}}),
                                 [&] { journal.push_back("performed"); });
  checks.at(0)(true);
  send("set", request("scheduler.set", validEvent("a")), now);
  send("events", request("scheduler.events"), now);
  send("malformed", request("scheduler"), now);
  send("remove", request("scheduler.remove", S("a")), later);
  send("disable", request("scheduler.setenabled", B(false)), now);
  performWaitWhenSettled([&] { journal.push_back("settled"); });
  EXPECT_EQ(
      journal,
      (std::vector<std::string>{
          "check scheduler.events", "events {\"response\"=>[],\"status\"=>200}",
          "malformed " + plist::describeValue(refusal(reason::kRequestMustHaveTwoComponents))}));
  journal.clear();
  pauseTimers.timer(0)->fire();
  const std::string ok = plist::describeValue(response(200));
  EXPECT_EQ(journal,
            (std::vector<std::string>{"performed", "early set " + ok, "check scheduler.set",
                                      "set " + ok, "check scheduler.setenabled", "disable " + ok}));
  ASSERT_EQ(checks.size(), 2u);
  journal.clear();
  checks[1](true);
  checks[1](false);  // a second answer changes nothing
  EXPECT_EQ(journal, (std::vector<std::string>{"remove " + ok, "settled"}));
  EXPECT_EQ(held().size(), 1u);
  EXPECT_NE(log_.lines.back().second.find("\"32 bytes of data\""), std::string::npos);

  journal.clear();
  send("set now", request("scheduler.set", validEvent("b")), now);
  performWaitWhenSettled([&] { journal.push_back("settled at once"); });
  EXPECT_EQ(journal,
            (std::vector<std::string>{"check scheduler.set", "set now " + ok, "settled at once"}));
}

using SchedulerRequestTest = DispatchTest;

TEST_F(SchedulerRequestTest, SetEventsRemovesEachHeldEventByNameThenAddsEachMember) {
  ASSERT_EQ(dispatch(request("scheduler.set", validEvent("b", "Beta"))), response(200));
  ASSERT_EQ(dispatch(request("scheduler.set", validEvent("a", "Alpha"))), response(200));
  PostRecorder posts(model::eventListGet());
  const Value c = validEvent("c");
  const Value a = validEvent("a", "Again");
  const Value laterC = validEvent("c", "Later");
  EXPECT_EQ(dispatch(request("scheduler.setevents", A({c, a, laterC}))), response(200));
  EXPECT_EQ(posts.posts, (std::vector<Post>{{"events.remove", Dict({{"uniqueid", S("a")}})},
                                            {"events.remove", Dict({{"uniqueid", S("b")}})},
                                            {"events.add", c},
                                            {"events.add", a},
                                            {"events.modify", laterC}}));
  EXPECT_EQ(held(), (std::vector<Value>{laterC, a}));
}

TEST_F(SchedulerRequestTest, SetEventsWithAnInvalidMemberChangesNothing) {
  ASSERT_EQ(dispatch(request("scheduler.set", validEvent("a"))), response(200));
  PostRecorder posts(model::eventListGet());
  const Value nameless = validEvent("y").without("name");
  EXPECT_EQ(
      dispatch(request("scheduler.setevents", A({validEvent("x"), nameless, I(7)}))),
      response(400, A({model::validateEvent(nameless), element("Must be a CFDictionaryRef")})));
  // Called without their argument, the operations refuse too.
  for (const auto operation :
       {schedulerSetEvents, schedulerSetEvent, schedulerRemoveEvent, schedulerSetEnabled})
    EXPECT_EQ(operation(Value()), response(400));
  EXPECT_TRUE(posts.posts.empty());
  EXPECT_EQ(held(), (std::vector<Value>{validEvent("a")}));
}

// Without their modules the requests answer 400 or nothing, but their checks
// still come first.
TEST_F(SchedulerRequestTest, WithoutSchedulerOrEventListOrNotificationController) {
  notifications::notificationControllerDestroy();
  scheduling::eventSchedulerTearDown();
  PostRecorder posts(nullptr);
  expect({
      {"pending", request("notifications.pending"), response(200)},
      {"notifyperiod", request("notifications.notifyperiod"), response(200)},
      {"cancel", request("notifications.cancel", S("a")), response(400)},
      {"reset", request("notifications.reset", S("a")), response(400)},
      {"delay", request("notifications.delay", delay(I(60))), response(400)},
      {"setnotifyperiod", request("notifications.setnotifyperiod", R(60)),
       refusal(reason::kMissingNotificationController)},
      {"enabled", request("scheduler.enabled"), response(200)},
      {"setenabled", request("scheduler.setenabled", B(false)), response(400)},
  });
  EXPECT_TRUE(posts.posts.empty());
  model::eventListTearDown();
  expect({
      {"events", request("scheduler.events"), response(200)},
      {"set", request("scheduler.set", validEvent("a")), response(400)},
      {"remove", request("scheduler.remove", S("a")), response(400)},
      {"remove a number", request("scheduler.remove", I(1)),
       invalid(Dict({{"uniqueid", element("Must be a CFStringRef")}}))},
  });
}

TEST_F(SchedulerRequestTest, AChangeThatWouldPassTheSavedStateLimitIsRefusedAndChangesNothing) {
  // Room for three events and half a kilobyte more, once the reserve is taken.
  const std::size_t perEvent = state::savedEventBytes(validEvent("e0"));
  preferences_.limitStoredBytes((3 * perEvent + 512) * 16 / 15);
  state::savedStateSizeSaved();
  for (const char* id : {"e0", "e1", "e2"})
    ASSERT_EQ(dispatch(request("scheduler.set", validEvent(id))), response(200));
  PostRecorder posts(model::eventListGet());
  const Value tooLarge = refusal(reason::kSavedStateTooLarge);
  expect({
      {"one more event", request("scheduler.set", validEvent("e3")), tooLarge},
      {"a list longer than the held one",
       request("scheduler.setevents",
               A({validEvent("a"), validEvent("b"), validEvent("c"), validEvent("d")})),
       tooLarge},
      {"a notify period", request("notifications.setnotifyperiod", R(60)), tooLarge},
      {"a delay", request("notifications.delay", delay(I(60), S("e0"))), tooLarge},
      {"a removal always fits", request("scheduler.remove", S("nothing")), response(400)},
  });
  EXPECT_TRUE(posts.posts.empty());  // the event list changed nothing
  // Enabling queues every event again, which could not be saved either.
  ASSERT_EQ(dispatch(request("scheduler.setenabled", B(false))), response(200));
  EXPECT_EQ(dispatch(request("scheduler.setenabled", B(true))), tooLarge);
  EXPECT_EQ(dispatch(request("scheduler.enabled")), response(200, B(false)));
  // A list that replaces the held one counts only itself.
  EXPECT_EQ(dispatch(request("scheduler.setevents", A({validEvent("a"), validEvent("b")}))),
            response(200));
  EXPECT_EQ(held().size(), 2u);
  // A save measures the state afresh.
  ASSERT_TRUE(state::persistenceSave());
  EXPECT_EQ(state::savedStateProjectedBytes(), preferences_.storedBytes());
}

// The real rights check with the default rights installed and no polkit on
// the system, so the installed policy decides, for pid 4242 of uid 1000. A
// refusal loop cannot flood the log: its lines are bounded per uid and a
// second, and the rest are counted once their second is over.
TEST_F(DispatchTest, AuthorizeAsBoundsTheRefusalLinesPerUid) {
  auto database = std::make_unique<nightjar::testing::FakePolicyDatabase>();
  installDefaultRights(*database);
  nightjar::testing::FakeProc proc;
  proc.add(4242, 777);
  ASSERT_TRUE(authorizationCreate({std::move(database), nullptr, proc.root.path}));
  const auto dispatchAs = [] {
    Value reply;
    dispatchRequest(request("scheduler.set", validEvent("a"))
                        .with("Authorization", nightjar::testing::formValue(4242, 1000, 777)),
                    authorizeAs({.pid = 4242, .uid = 1000, .gid = 1000}),
                    [&reply](Value answer) { reply = std::move(answer); });
    return reply;
  };
  EXPECT_EQ(dispatchAs(), refusal(reason::kRequestMustBeAuthorized));
  EXPECT_EQ(log_.lines.at(0), std::pair(LOG_NOTICE, std::string("Authorization refused: "
                                                                "quillon.nightjar.scheduler.set")));
  for (int i = 0; i < 200; ++i)
    dispatchAs();
  const auto count = [this](std::string_view text) {
    return std::count_if(log_.lines.begin(), log_.lines.end(),
                         [&](const auto& line) { return line.second.find(text) == 0; });
  };
  // At most two seconds' worth, even when the loop crossed into the next one.
  EXPECT_LE(count("Authorization refused") + count("API: "), 2 * kRefusalLinesPerSecond);
  const double second = std::floor(runloop::systemClock().now());
  while (std::floor(runloop::systemClock().now()) == second)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  dispatchAs();
  EXPECT_GE(count("Suppressed "), 1);
  authorizationDestroy();
}

}  // namespace
}  // namespace nightjar::api::testing
