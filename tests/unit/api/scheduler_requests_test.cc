#include "api/scheduler_requests.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "api/dispatcher_testing.h"
#include "model/validation.h"
#include "state/saved_state.h"
#include "state/saved_state_size.h"

namespace nightjar::api::testing {
namespace {

using SchedulerRequestTest = DispatcherTest;

Value removal(const std::string& id) {
  return Dict({{"uniqueid", S(id)}});
}

const std::vector<Value>& held() {
  return model::eventListGet()->events().members();
}

TEST_F(SchedulerRequestTest, EventsAreSortedByNameWithoutPrivateMembers) {
  const Value zed = validEvent("b", "Zed");
  const Value alpha = validEvent("a", "Alpha");
  ASSERT_EQ(dispatch(request("scheduler.set", zed.with("_Owner.Group.Item", I(1)))), response(200));
  ASSERT_EQ(dispatch(request("scheduler.set", alpha)), response(200));
  EXPECT_EQ(dispatch(request("scheduler.events")), response(200, A({alpha, zed})));
}

TEST_F(SchedulerRequestTest, StoringAnEqualRecordAnswers200AndPostsNothing) {
  PostRecorder posts(model::eventListGet());
  EXPECT_EQ(dispatch(request("scheduler.set", validEvent("a"))), response(200));
  EXPECT_EQ(dispatch(request("scheduler.set", validEvent("a"))), response(200));
  EXPECT_EQ(dispatch(request("scheduler.set", validEvent("a", "renamed"))), response(200));
  EXPECT_EQ(posts.names(), (std::vector<std::string>{"events.add", "events.modify"}));
}

TEST_F(SchedulerRequestTest, SetEventsRemovesEachHeldEventByNameThenAddsEachMember) {
  ASSERT_EQ(dispatch(request("scheduler.set", validEvent("b", "Beta"))), response(200));
  ASSERT_EQ(dispatch(request("scheduler.set", validEvent("a", "Alpha"))), response(200));
  PostRecorder posts(model::eventListGet());
  const Value c = validEvent("c");
  const Value a = validEvent("a", "Again");
  const Value laterC = validEvent("c", "Later");

  EXPECT_EQ(dispatch(request("scheduler.setevents", A({c, a, laterC}))), response(200));
  EXPECT_EQ(posts.posts, (std::vector<Post>{{"events.remove", removal("a")},
                                            {"events.remove", removal("b")},
                                            {"events.add", c},
                                            {"events.add", a},
                                            {"events.modify", laterC}}));
  EXPECT_EQ(held(), (std::vector<Value>{laterC, a}));

  posts.posts.clear();
  EXPECT_EQ(dispatch(request("scheduler.setevents", A({}))), response(200));
  EXPECT_EQ(posts.names(), (std::vector<std::string>{"events.remove", "events.remove"}));
  EXPECT_TRUE(held().empty());
}

TEST_F(SchedulerRequestTest, SetEventsWithAnInvalidMemberChangesNothing) {
  ASSERT_EQ(dispatch(request("scheduler.set", validEvent("a"))), response(200));
  PostRecorder posts(model::eventListGet());
  const Value nameless = validEvent("y").without("name");

  EXPECT_EQ(
      dispatch(request("scheduler.setevents", A({validEvent("x"), nameless, I(7)}))),
      response(400, A({model::validateEvent(nameless), element("Must be a CFDictionaryRef")})));
  EXPECT_EQ(dispatch(request("scheduler.setevents", A({S("x")}))),
            response(400, A({element("Must be a CFDictionaryRef")})));
  EXPECT_EQ(dispatch(request("scheduler.setevents", A({A({}), validEvent("z")}))),
            response(400, A({element("Must be a CFDictionaryRef")})));
  EXPECT_TRUE(posts.posts.empty());
  EXPECT_EQ(held(), (std::vector<Value>{validEvent("a")}));
}

TEST_F(SchedulerRequestTest, SetEnabledIsPostedForTheScheduler) {
  PostRecorder posts(scheduling::eventSchedulerGet());
  EXPECT_EQ(
      dispatch(request("scheduler.setenabled", I(0))),
      refusal(model::refusal::kInvalidParameter, Dict({{"enabled", S("Must be a CFBooleanRef")}})));
  EXPECT_TRUE(posts.posts.empty());

  EXPECT_EQ(dispatch(request("scheduler.setenabled", B(false))), response(200));
  EXPECT_EQ(posts.names(), (std::vector<std::string>{"scheduler.enabled"}));
  EXPECT_EQ(dispatch(request("scheduler.enabled")), response(200, B(false)));
  EXPECT_EQ(dispatch(request("scheduler.setenabled", B(true))), response(200));
  EXPECT_EQ(dispatch(request("scheduler.enabled")), response(200, B(true)));
}

TEST_F(SchedulerRequestTest, WithoutSchedulerOrEventList) {
  scheduling::eventSchedulerTearDown();
  PostRecorder posts(nullptr);
  expect({
      {"enabled", request("scheduler.enabled"), response(200)},
      {"setenabled", request("scheduler.setenabled", B(false)), response(400)},
  });
  EXPECT_TRUE(posts.posts.empty());

  model::eventListTearDown();
  expect({
      {"events", request("scheduler.events"), response(200)},
      {"set", request("scheduler.set", validEvent("a")), response(400)},
      {"remove", request("scheduler.remove", S("a")), response(400)},
      {"checks still come first", request("scheduler.remove", I(1)),
       refusal(model::refusal::kInvalidParameter,
               Dict({{"uniqueid", element("Must be a CFStringRef")}}))},
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
  const std::vector<Value> before = held();
  const Value tooLarge = refusal(model::refusal::kSavedStateTooLarge);
  expect({
      {"one more event", request("scheduler.set", validEvent("e3")), tooLarge},
      {"a list longer than the held one",
       request("scheduler.setevents",
               A({validEvent("a"), validEvent("b"), validEvent("c"), validEvent("d")})),
       tooLarge},
      {"a notify period", request("notifications.setnotifyperiod", R(60)), tooLarge},
      {"a delay", request("notifications.delay", Dict({{"uniqueid", S("e0")}, {"seconds", I(60)}})),
       tooLarge},
      {"a removal always fits", request("scheduler.remove", S("nothing")), response(400)},
  });
  EXPECT_EQ(held(), before);
  EXPECT_TRUE(posts.posts.empty());
  EXPECT_EQ(tooLarge.get("reason"), S("Saved state would be too large"));
  EXPECT_EQ(tooLarge.get("error"), I(413));

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

TEST(SchedulerOperations, RefuseAMissingArgument) {
  EXPECT_EQ(schedulerSetEvents(Value()), response(400));
  EXPECT_EQ(schedulerSetEvent(Value()), response(400));
  EXPECT_EQ(schedulerRemoveEvent(Value()), response(400));
  EXPECT_EQ(schedulerSetEnabled(Value()), response(400));
}

}  // namespace
}  // namespace nightjar::api::testing
