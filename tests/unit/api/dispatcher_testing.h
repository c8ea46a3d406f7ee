// The dispatcher's tests share this fixture: the real event list, queue
// controller list, event scheduler and notification controller over the ports'
// fakes; a run loop; a recording log; and an authorization that grants what the
// test lets it and records every right it was asked for.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "api/dispatcher.h"
#include "api/perform_wait.h"
#include "fakes/ports_fixture.h"
#include "model/event_list.h"
#include "model/model_testing.h"
#include "model/reply.h"
#include "notifications/notification_controller.h"
#include "runloop/run_loop.h"
#include "scheduling/event_action.h"
#include "scheduling/event_scheduler.h"
#include "scheduling/queue_controller.h"

namespace nightjar::api::testing {

using namespace nightjar::model::testing;

// A well-formed authorization: 32 bytes whose tail spells a marker that must
// never reach the log.
inline Value authorizationForm(std::size_t size = kAuthorizationFormSize) {
  plist::Bytes bytes(size, 'Q');
  static constexpr char kMarker[] = "NJAZ\x01\x00\x00\x00SECRETMARKERBYTES";
  const std::string_view marker(kMarker, sizeof kMarker - 1);
  std::copy_n(marker.begin(), std::min(marker.size(), size), bytes.begin());
  return Value::data(std::move(bytes));
}

// { "Request": name, "Authorization": form } plus "Parameter" when given.
inline Value request(const std::string& name, Value parameter = {}) {
  Value built = Dict({{"Request", S(name)}, {"Authorization", authorizationForm()}});
  return parameter ? built.with("Parameter", std::move(parameter)) : built;
}

inline Value refusal(const model::ErrorReason& reason, Value detail = {}) {
  return model::makeError(reason, std::move(detail));
}

inline Value response(std::int32_t status, Value value = {}) {
  return model::makeResponse(status, std::move(value));
}

// One row of a reply table.
struct Case {
  std::string label;
  Value request;
  Value expected;
};

class DispatcherTest : public nightjar::testing::PortsFixture {
 protected:
  void SetUp() override {
    PortsFixture::SetUp();
    loop_ = runloop::RunLoop::create();
    ASSERT_NE(loop_, nullptr);
    model::eventListSetUp();
    scheduling::queueControllerListSetUp();
    scheduling::eventSchedulerSetUp(model::eventListGet(), scheduling::queueControllerListGet());
    notifications::notificationControllerCreate(clock_, timers_.timerFactory(),
                                                [](const Value&) {});
    ASSERT_NE(notifications::notificationControllerGet(), nullptr);
  }
  void TearDown() override {
    scheduling::eventActionTearDown();
    performWaitReset();
    notifications::notificationControllerDestroy();
    scheduling::eventSchedulerTearDown();
    scheduling::queueControllerListTearDown();
    model::eventListTearDown();
    PortsFixture::TearDown();
    loop_.reset();
  }

  // Dispatches with an authorization that answers at once: granted unless
  // the right is in `refused_`.
  Value dispatch(const Value& request) {
    return dispatchRequestNow(request, [this](const Value&, std::string_view right) {
      asked_.emplace_back(right);
      return !refused_.contains(std::string(right));
    });
  }

  void expect(const std::vector<Case>& cases) {
    for (const Case& each : cases) {
      SCOPED_TRACE(each.label);
      EXPECT_EQ(dispatch(each.request), each.expected);
    }
  }

  RecordingLog log_;
  std::unique_ptr<runloop::RunLoop> loop_;
  std::set<std::string> refused_;
  std::vector<std::string> asked_;
};

}  // namespace nightjar::api::testing
