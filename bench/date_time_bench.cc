// The "DateTime" controller at the size of a large installation, in a zone
// with daylight saving: queueing 10 000 daily events (each one's trigger
// computation, sorted store and timer arming), with and without the
// notification controller's pending warnings, and firing the first event
// (perform, take back, queue its next occurrence) in a full queue.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>

#include "fakes/fake_timer.h"
#include "logging/logging.h"
#include "model/event_list.h"
#include "notifications/notification_controller.h"
#include "plist/value.h"
#include "scheduling/date_time_queue_controller.h"
#include "scheduling/date_time_trigger.h"
#include "scheduling/event_scheduler.h"

namespace {

namespace ns = nightjar::scheduling;
namespace model = nightjar::model;
namespace nc = nightjar::notifications;
using nightjar::plist::Value;

// 2026-11-03 09:00 UTC.
constexpr nightjar::plist::AbsoluteTime kStart = 815389200;

class DiscardSink final : public nightjar::logging::LogSink {
 public:
  void write(int, std::string_view) override {}
};

// A valid daily event at a time of day spread over the whole day.
Value dailyEvent(int i) {
  using nightjar::plist::Array;
  Array days;
  for (const char* day : {"monday", "tuesday", "wednesday", "thursday", "friday"})
    days.push_back(Value::string(day));
  return Value::dictionary(
      {{"uniqueid", Value::string("event-" + std::to_string(i))},
       {"name", Value::string("Event " + std::to_string(i))},
       {"enabled", Value::boolean(true)},
       {"trigger", Value::dictionary({{"type", Value::string("daily")},
                                      {"secondsfrommidnight", Value::integer((i * 7919) % 86400)},
                                      {"days", Value::array(std::move(days))}})},
       {"action", Value::dictionary({{"type", Value::string("sleep")}})}});
}

// The zone, the log sink and the fake clock and timers every case runs on.
struct Bench {
  Bench() {
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
    nightjar::logging::setLogSink(&sink);
  }
  ~Bench() { nightjar::logging::setLogSink(nullptr); }
  DiscardSink sink;
  nightjar::fakes::FakeClock clock{kStart};
  nightjar::fakes::FakeTimerFactory timers{clock};
};

void queueDailyEvents(benchmark::State& state, bool warnings) {
  Bench bench;
  const int count = static_cast<int>(state.range(0));
  std::vector<Value> events;
  for (int i = 0; i < count; ++i)
    events.push_back(dailyEvent(i));
  for (auto _ : state) {
    state.PauseTiming();
    if (warnings)
      nc::notificationControllerCreate(bench.clock, bench.timers.timerFactory(), {});
    ns::QueueController* controller =
        ns::dateTimeQueueControllerCreate(bench.clock, bench.timers.timerFactory(), {});
    state.ResumeTiming();
    for (const Value& event : events)
      ns::queueControllerStore(controller, event);
    state.PauseTiming();
    ns::queueControllerDestroy(controller);
    nc::notificationControllerDestroy();
    state.ResumeTiming();
  }
  state.counters["events"] = count;
  state.counters["per event"] =
      benchmark::Counter(static_cast<double>(count), benchmark::Counter::kIsIterationInvariantRate |
                                                         benchmark::Counter::kInvert);
}

void queueDaily(benchmark::State& state) {
  queueDailyEvents(state, /*warnings=*/false);
}
void queueDailyWithWarnings(benchmark::State& state) {
  queueDailyEvents(state, /*warnings=*/true);
}

// The trigger computation alone, the controller's own share of queueing.
void triggerDates(benchmark::State& state) {
  Bench bench;
  const int count = static_cast<int>(state.range(0));
  std::vector<Value> events;
  for (int i = 0; i < count; ++i)
    events.push_back(dailyEvent(i));
  for (auto _ : state) {
    for (const Value& event : events)
      benchmark::DoNotOptimize(ns::dateTimeTriggerDate(event, kStart));
  }
  state.counters["events"] = count;
  state.counters["per event"] =
      benchmark::Counter(static_cast<double>(count), benchmark::Counter::kIsIterationInvariantRate |
                                                         benchmark::Counter::kInvert);
}

// Each iteration moves the clock past the first trigger date and fires the
// timer: the event is performed (no action module: its completion runs at
// once) and rescheduled from the event list onto its next day.
void fireFirst(benchmark::State& state) {
  Bench bench;
  const int count = static_cast<int>(state.range(0));
  model::eventListSetUp();
  ns::queueControllerListSetUp();
  ns::QueueController* controller =
      ns::dateTimeQueueControllerCreate(bench.clock, bench.timers.timerFactory(), {});
  ns::queueControllerListAppend(ns::queueControllerListGet(), controller);
  ns::eventSchedulerSetUp(model::eventListGet(), ns::queueControllerListGet());
  for (int i = 0; i < count; ++i)
    model::eventListStore(model::eventListGet(), dailyEvent(i));
  nightjar::fakes::FakeTimer* timer = bench.timers.last();
  for (auto _ : state) {
    const Value first = ns::queueControllerFirstEvent(controller);
    bench.clock.set(*first.get(ns::kTriggerDateKey).asDate() + 0.5);
    timer->fire();
  }
  ns::eventSchedulerTearDown();
  model::eventListTearDown();
  ns::queueControllerListTearDown();
  state.counters["events"] = count;
}

}  // namespace

BENCHMARK(triggerDates)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(queueDaily)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(queueDailyWithWarnings)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(fireFirst)->Arg(10000)->Unit(benchmark::kMicrosecond);
