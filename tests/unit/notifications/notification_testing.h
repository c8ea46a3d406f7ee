// The notification controller's tests share the ports fixture, with the
// controller created on its clock and timers.
#pragma once

#include <string>
#include <vector>

#include "fakes/ports_fixture.h"
#include "model/model_testing.h"
#include "notifications/notification_controller.h"

namespace nightjar::notifications::testing {

using namespace nightjar::model::testing;

inline constexpr plist::AbsoluteTime kStart = nightjar::testing::kPortsStart;

class NotificationControllerTest : public nightjar::testing::PortsFixture {
 protected:
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

  std::vector<plist::Value> rescheduled_;
};

}  // namespace nightjar::notifications::testing
