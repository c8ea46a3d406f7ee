// The saved-state tests share the ports fixture, with every module the state
// is made of, real, over its clock, timers and store and a fake idle time.
#pragma once

#include <string>
#include <vector>

#include "fakes/fake_idle_time_source.h"
#include "fakes/ports_fixture.h"
#include "model/event_list.h"
#include "model/model_testing.h"
#include "notifications/notification_controller.h"
#include "scheduling/date_time_queue_controller.h"
#include "scheduling/inactivity_queue_controller.h"
#include "scheduling/queue_controller.h"
#include "state/saved_state.h"

namespace nightjar::state::testing {

using namespace nightjar::model::testing;

inline constexpr plist::AbsoluteTime kStart = nightjar::testing::kPortsStart;

class SavedStateTest : public nightjar::testing::PortsFixture {
 protected:
  void SetUp() override {
    PortsFixture::SetUp();
    setUpModules();
  }
  void TearDown() override {
    tearDownModules();
    PortsFixture::TearDown();
  }

  // Main's order: event list, notification controller, queue controllers.
  void setUpModules() {
    model::eventListSetUp();
    notifications::notificationControllerCreate(clock_, timers_.timerFactory(),
                                                [](const Value&) {});
    scheduling::queueControllerListSetUp();
    scheduling::QueueControllerList* list = scheduling::queueControllerListGet();
    scheduling::queueControllerListAppend(
        list, scheduling::dateTimeQueueControllerCreate(clock_, timers_.timerFactory(), {}));
    scheduling::queueControllerListAppend(
        list, scheduling::inactivityQueueControllerCreate(&idle_, clock_, timers_.timerFactory()));
  }
  void tearDownModules() {
    model::eventListTearDown();
    scheduling::queueControllerListTearDown();
    notifications::notificationControllerDestroy();
  }

  // The controller that takes `event`: "DateTime" for daily and once events.
  scheduling::QueueController* controllerFor(const Value& event) {
    return scheduling::queueControllerListFindForEvent(scheduling::queueControllerListGet(), event);
  }
  Value saved() { return preferences_.disk().get(persistence::kEngineKey); }
  std::vector<std::string> eventIds() {
    return idsOf(model::eventListCopyPublic(model::eventListGet()));
  }

  fakes::FakeIdleTimeSource idle_{clock_};
};

}  // namespace nightjar::state::testing
