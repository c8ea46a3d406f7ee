// The notification controller's tests share this fixture: a fake clock, fake
// timers, an in-memory preference store and a system monitor without
// facilities, whose wake the tests post by hand.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fakes/fake_clock.h"
#include "fakes/fake_preferences_store.h"
#include "fakes/fake_timer.h"
#include "model/model_testing.h"
#include "monitors/system_monitor.h"
#include "notifications/notification_controller.h"
#include "persistence/preferences.h"

namespace nightjar::notifications::testing {

using namespace nightjar::model::testing;

inline constexpr plist::AbsoluteTime kStart = 800000000;

class NotificationControllerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    persistence::preferencesSetStore(&preferences_);
    ASSERT_TRUE(monitors::systemMonitorCreate(nullptr, {}));
  }
  void TearDown() override {
    notificationControllerDestroy();
    monitors::systemMonitorDestroy(nullptr);
    persistence::preferencesSetStore(nullptr);
  }

  NotificationController* create() {
    notificationControllerCreate(clock_, timers_.timerFactory(),
                                 [this](const plist::Value& id) { rescheduled_.push_back(id); });
    return notificationControllerGet();
  }
  fakes::FakeTimer& timer() { return *timers_.last(); }
  void postWake() {
    runloop::localCenter().post(monitors::kWakeNotification, monitors::systemMonitorGet());
  }
  plist::Value pending(NotificationController* controller, const std::string& id) {
    return model::eventQueueFind(notificationControllerPendingQueue(controller), S(id));
  }
  std::vector<std::string> pendingIds(NotificationController* controller) {
    std::vector<std::string> ids;
    const plist::Value events =
        model::eventQueueCopyEvents(notificationControllerPendingQueue(controller));
    for (const plist::Value& event : *events.asArray())
      ids.push_back(*event.get("uniqueid").asString());
    return ids;
  }

  fakes::FakeClock clock_{kStart};
  fakes::FakeTimerFactory timers_{clock_};
  fakes::FakePreferencesStore preferences_;
  std::vector<plist::Value> rescheduled_;
};

}  // namespace nightjar::notifications::testing
