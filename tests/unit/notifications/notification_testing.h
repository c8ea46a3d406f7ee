// The ports fixture, with the notification controller created on its clock and timers.
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
  // Registers handlers that record into delays_ and cancels_.
  void recordHandlers(NotificationController* controller) {
    NotificationHandlers handlers;
    handlers.cancel = [](NotificationController*, const plist::Value& event, void* context) {
      static_cast<NotificationControllerTest*>(context)->cancels_.push_back(event);
    };
    handlers.delay = [](NotificationController*, const plist::Value& event, double s, void* self) {
      static_cast<NotificationControllerTest*>(self)->delays_.emplace_back(event, s);
    };
    handlers.context = this;
    notificationControllerRegisterHandlers(controller, handlers);
  }

  std::vector<plist::Value> rescheduled_, cancels_;
  std::vector<std::pair<plist::Value, double>> delays_;
};

}  // namespace nightjar::notifications::testing
