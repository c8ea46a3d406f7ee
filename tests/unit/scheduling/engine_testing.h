// Shared helpers of the scheduling tests: a recording controller whose callback
// table the test shapes, events of each trigger kind, a time zone set for one
// test, and a fixture for the controllers that perform.
#pragma once

#include <compare>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "fakes/port_fakes.h"
#include "fakes/ports_fixture.h"
#include "model/event.h"
#include "model/event_list.h"
#include "model/model_testing.h"
#include "runloop/clock.h"
#include "scheduling/event_action.h"
#include "scheduling/event_scheduler.h"
#include "scheduling/power_events.h"
#include "scheduling/queue_controller.h"

namespace nightjar::scheduling::testing {

using namespace model::testing;
using plist::AbsoluteTime;

// What a recording controller does and what it saw. The controller's context
// points here.
struct Recorder {
  std::set<std::string> types;  // trigger types accepted
  bool refuseAdd = false;
  bool refuseModify = false;
  std::set<std::string> refuseRemove;  // identifiers kept by willRemove
  std::vector<std::string> calls;      // "willAdd a", "didChange", ...
  Value firstAtDestroy;
};

inline std::string idOf(const Value& event) {
  const std::string* id = model::eventUniqueID(event).asString();
  return id != nullptr ? *id : "?";
}

inline Recorder& recorderOf(void* context) {
  return *static_cast<Recorder*>(context);
}

// The full table; each slot records its call. willAdd marks its copy with a
// private key, as a real controller stores its trigger date.
inline QueueControllerCallbacks recordingCallbacks(Recorder* recorder) {
  QueueControllerCallbacks callbacks;
  callbacks.acceptsTriggerType = [](QueueController*, std::string_view type, void* context) {
    return recorderOf(context).types.contains(std::string(type));
  };
  callbacks.destroy = [](QueueController* controller, void* context) {
    recorderOf(context).calls.push_back("destroy");
    recorderOf(context).firstAtDestroy = queueControllerFirstEvent(controller);
  };
  callbacks.willAdd = [](QueueController*, Value& copy, void* context) {
    recorderOf(context).calls.push_back("willAdd " + idOf(copy));
    copy = copy.with("_Test.Mark", S("added"));
    return !recorderOf(context).refuseAdd;
  };
  callbacks.willModify = [](QueueController*, const Value& queued, Value& copy, void* context) {
    recorderOf(context).calls.push_back("willModify " + idOf(queued) + " " + idOf(copy));
    copy = copy.with("_Test.Mark", S("modified"));
    return !recorderOf(context).refuseModify;
  };
  callbacks.willRemove = [](QueueController*, const Value& queued, void* context) {
    recorderOf(context).calls.push_back("willRemove " + idOf(queued));
    return !recorderOf(context).refuseRemove.contains(idOf(queued));
  };
  callbacks.didChange = [](QueueController*, void* context) {
    recorderOf(context).calls.push_back("didChange");
  };
  callbacks.didReset = [](QueueController*, void* context) {
    recorderOf(context).calls.push_back("didReset");
  };
  callbacks.initialContext = recorder;
  return callbacks;
}

// Ascending by "name", so a test can tell sorted from arrival order.
inline std::weak_ordering byName(const Value& a, const Value& b, void*) {
  return model::compareEventsByKey(a, b, model::kNameKey);
}

inline QueueController* recordingController(const std::string& name, Recorder* recorder,
                                            std::set<std::string> types) {
  recorder->types = std::move(types);
  return queueControllerCreate(name, recordingCallbacks(recorder), {byName, nullptr});
}

// The identifiers queued in `controller`, in queue order.
inline std::vector<std::string> queuedIds(const QueueController* controller) {
  std::vector<std::string> ids;
  const Value events = queueControllerCopyEvents(controller);
  for (std::size_t i = 0; i < events.count(); ++i)
    ids.push_back(idOf(events.at(i)));
  return ids;
}

inline Value event(const std::string& id, Value trigger, const std::string& action = "sleep") {
  return validEvent(id)
      .with("trigger", std::move(trigger))
      .with("action", Dict({{"type", S(action)}}));
}
inline Value inactiveEvent(const std::string& id, std::int64_t seconds = 600) {
  return event(id, Dict({{"type", S("inactive")}, {"secondsofinactivity", I(seconds)}}));
}
inline Value onceEvent(const std::string& id, AbsoluteTime date,
                       const std::string& action = "sleep") {
  return event(id, Dict({{"type", S("once")}, {"date", D(date)}}), action);
}
inline Value days(std::initializer_list<const char*> names) {
  plist::Array out;
  for (const char* name : names)
    out.push_back(S(name));
  return A(std::move(out));
}
inline Value everyDay() {
  return days({"monday", "tuesday", "wednesday", "thursday", "friday", "saturday", "sunday"});
}
inline Value dailyEvent(const std::string& id, std::int64_t secondsFromMidnight,
                        const std::string& action = "sleep", Value weekdays = everyDay()) {
  return event(id,
               Dict({{"type", S("daily")},
                     {"secondsfrommidnight", I(secondsFromMidnight)},
                     {"days", std::move(weekdays)}}),
               action);
}
inline constexpr std::int64_t hms(int hour, int minute, int second = 0) {
  return hour * 3600 + minute * 60 + second;
}

// The instant of a UTC reading.
inline AbsoluteTime utc(int year, int month, int day, int hour = 0, int minute = 0,
                        int second = 0) {
  std::tm f{};
  f.tm_year = year - 1900;
  f.tm_mon = month - 1;
  f.tm_mday = day;
  f.tm_hour = hour;
  f.tm_min = minute;
  f.tm_sec = second;
  return runloop::fromUnixSeconds(static_cast<double>(timegm(&f)));
}

// Makes `zone` the C library's local zone for the object's lifetime, then
// restores the TZ it found.
struct ScopedZone {
  explicit ScopedZone(const std::string& zone) {
    if (const char* tz = std::getenv("TZ"))
      saved_ = tz;
    setenv("TZ", zone.c_str(), /*overwrite=*/1);
    tzset();
  }
  ~ScopedZone() {
    saved_ ? setenv("TZ", saved_->c_str(), 1) : unsetenv("TZ");
    tzset();
  }
  ScopedZone(const ScopedZone&) = delete;
  ScopedZone& operator=(const ScopedZone&) = delete;
  std::optional<std::string> saved_;
};

// The controller list with a recording "DateTime" and "Inactivity" controller,
// over the real event list, a fake preference store and a fake power manager.
class EngineFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    persistence::preferencesSetStore(&store);
    powerEventsSetManager(&power, &clock);
    model::eventListSetUp();
    queueControllerListSetUp();
    list = queueControllerListGet();
    queueControllerListAppend(
        list, byDate = recordingController("DateTime", &dateTime, {"once", "daily"}));
    queueControllerListAppend(list,
                              byIdle = recordingController("Inactivity", &idle, {"inactive"}));
  }
  void TearDown() override {
    eventSchedulerTearDown();
    model::eventListTearDown();
    queueControllerListTearDown();
    powerEventsSetManager(nullptr, nullptr);
    persistence::preferencesSetStore(nullptr);
  }

  nightjar::testing::FakePreferencesStore store;
  fakes::FakeClock clock{1000};
  nightjar::testing::FakePowerManager power;
  Recorder dateTime, idle;
  QueueController *byDate = nullptr, *byIdle = nullptr;
  QueueControllerList* list = nullptr;
};

// The ports fixture with the perform sequence on fake timers, so that a test
// decides when a perform's two-second pause ends.
class PerformFixture : public nightjar::testing::PortsFixture {
 protected:
  using PortsFixture::PortsFixture;
  void SetUp() override {
    PortsFixture::SetUp();
    EventActionPorts ports;
    ports.broadcasts = &broadcasts_;
    ports.timers = pauses_.timerFactory();
    ports.clock = &clock_;
    eventActionSetUp(std::move(ports));
  }
  void TearDown() override {
    eventActionTearDown();
    PortsFixture::TearDown();
  }
  // Ends the pause of the perform under way.
  void endPause() {
    ASSERT_NE(pauses_.last(), nullptr);
    ASSERT_TRUE(pauses_.last()->due(clock_.now() + 2));
    clock_.advance(2);
    pauses_.last()->fire();
  }
  std::vector<std::string> performed() const { return log_.performed(); }

  RecordingLog log_;
  fakes::FakeTimerFactory pauses_{clock_};
  nightjar::testing::FakeDistributedCenter broadcasts_;
};

}  // namespace nightjar::scheduling::testing
