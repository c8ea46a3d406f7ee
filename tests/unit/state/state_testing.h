// The saved-state tests share this fixture: every module the state is made of,
// real, over a fake clock, fake timers, a fake idle time and an in-memory
// preference store.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fakes/fake_clock.h"
#include "fakes/fake_idle_time_source.h"
#include "fakes/fake_preferences_store.h"
#include "fakes/fake_timer.h"
#include "model/event_list.h"
#include "model/model_testing.h"
#include "monitors/system_monitor.h"
#include "notifications/notification_controller.h"
#include "persistence/preferences.h"
#include "scheduling/date_time_queue_controller.h"
#include "scheduling/inactivity_queue_controller.h"
#include "scheduling/queue_controller.h"
#include "state/saved_state.h"

namespace nightjar::state::testing {

using namespace nightjar::model::testing;

inline constexpr plist::AbsoluteTime kStart = 800000000;

class SavedStateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    persistence::preferencesSetStore(&preferences_);
    ASSERT_TRUE(monitors::systemMonitorCreate(nullptr, {}));
    setUpModules();
  }
  void TearDown() override {
    tearDownModules();
    monitors::systemMonitorDestroy(nullptr);
    persistence::preferencesSetStore(nullptr);
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
    std::vector<std::string> ids;
    const Value events = model::eventListCopyPublic(model::eventListGet());
    for (const Value& event : *events.asArray())
      ids.push_back(*event.get("uniqueid").asString());
    return ids;
  }

  fakes::FakeClock clock_{kStart};
  fakes::FakeTimerFactory timers_{clock_};
  fakes::FakeIdleTimeSource idle_{clock_};
  fakes::FakePreferencesStore preferences_;
};

}  // namespace nightjar::state::testing
