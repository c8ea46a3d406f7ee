// The fixture every engine-level test builds on: a fake clock, fake timers on
// it, an in-memory preference store installed for the test, and a system
// monitor without facilities, whose wake the test posts by hand. A derived
// fixture sets up its modules after SetUp and tears them down before TearDown.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fakes/fake_timer.h"
#include "fakes/port_fakes.h"
#include "monitors/system_monitor.h"
#include "persistence/preferences.h"
#include "plist/value.h"
#include "runloop/notification_center.h"

namespace nightjar::testing {

inline constexpr plist::AbsoluteTime kPortsStart = 800000000;

class PortsFixture : public ::testing::Test {
 protected:
  explicit PortsFixture(plist::AbsoluteTime start = kPortsStart) : clock_(start) {}

  void SetUp() override {
    persistence::preferencesSetStore(&preferences_);
    ASSERT_TRUE(monitors::systemMonitorCreate(nullptr, {}));
  }
  void TearDown() override {
    monitors::systemMonitorDestroy(nullptr);
    persistence::preferencesSetStore(nullptr);
  }

  static void postWake() {
    runloop::localCenter().post(monitors::kWakeNotification, monitors::systemMonitorGet());
  }
  // The "uniqueid" of each event of the array `events`, in order.
  static std::vector<std::string> idsOf(const plist::Value& events) {
    std::vector<std::string> ids;
    for (const plist::Value& event : *events.asArray())
      ids.push_back(*event.get("uniqueid").asString());
    return ids;
  }

  fakes::FakeClock clock_;
  fakes::FakeTimerFactory timers_{clock_};
  testing::FakePreferencesStore preferences_;
};

}  // namespace nightjar::testing
