// Resync of every enabled event through a controller that makes a wake entry
// for each, over the real entry file, as a time-zone change or an enable does
// it: every entry is cancelled and made again, then the run-loop pass ends and
// the list is written. Prints the entry-file writes per resync.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <compare>
#include <filesystem>
#include <string>

#include "model/event.h"
#include "model/event_list.h"
#include "notifications/notification_controller.h"
#include "platform/linux/file_power_manager.h"
#include "runloop/clock.h"
#include "runloop/run_loop.h"
#include "scheduling/date_time_queue_controller.h"
#include "scheduling/event_scheduler.h"
#include "scheduling/power_events.h"
#include "scheduling/queue_controller.h"

namespace {

using nightjar::plist::Dictionary;
using nightjar::plist::Value;
namespace model = nightjar::model;
namespace scheduling = nightjar::scheduling;

constexpr char kDateKey[] = "_Bench.Trigger.Date";

Value wakeEvent(int id, double date) {
  return Value::dictionary(Dictionary{
      {"uniqueid", Value::string("event-" + std::to_string(id))},
      {"name", Value::string("Event " + std::to_string(id))},
      {"enabled", Value::boolean(true)},
      {"trigger",
       Value::dictionary(Dictionary{{"type", Value::string("once")}, {"date", Value::date(date)}})},
      {"action", Value::dictionary(Dictionary{{"type", Value::string("wake")}})}});
}

// A date-time controller cut down to its wake entries: the trigger date is
// the event's own, stored on the copy; entries are made on add and cancelled
// on removal.
scheduling::QueueControllerCallbacks wakeEntryCallbacks() {
  scheduling::QueueControllerCallbacks callbacks;
  callbacks.acceptsTriggerType = [](scheduling::QueueController*, std::string_view type, void*) {
    return type == "once";
  };
  callbacks.willAdd = [](scheduling::QueueController*, Value& copy, void*) {
    const Value date = copy.get("trigger").get("date");
    copy = copy.with(kDateKey, date);
    scheduling::powerEventsScheduleForEvent(copy, *date.asDate());
    return true;
  };
  callbacks.willRemove = [](scheduling::QueueController*, const Value& queued, void*) {
    scheduling::powerEventsCancelForEvent(queued, *queued.get(kDateKey).asDate());
    return true;
  };
  return callbacks;
}

std::weak_ordering byDate(const Value& a, const Value& b, void*) {
  return model::compareEventsByKey(a, b, kDateKey);
}

void eventSchedulerResync(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  char pattern[] = "/tmp/nightjar-bench-XXXXXX";
  const std::string root = ::mkdtemp(pattern);
  auto manager = nightjar::platform::linux_adapter::makeFilePowerManager(root, nullptr);
  scheduling::powerEventsSetManager(manager.get(), &nightjar::runloop::systemClock());
  model::eventListSetUp();
  scheduling::queueControllerListSetUp();
  scheduling::QueueControllerList* controllers = scheduling::queueControllerListGet();
  scheduling::queueControllerListAppend(
      controllers,
      scheduling::queueControllerCreate("DateTime", wakeEntryCallbacks(), {byDate, nullptr}));
  scheduling::eventSchedulerSetUp(model::eventListGet(), controllers);
  const double start = nightjar::runloop::systemClock().now() + 86400;
  for (int i = 0; i < count; ++i)
    model::eventListStore(model::eventListGet(), wakeEvent(i, start + 60.0 * ((i * 7919) % count)));
  manager->flush();

  const std::uint64_t writesBefore = manager->fileWrites();
  for (auto _ : state) {
    scheduling::eventSchedulerResync(scheduling::eventSchedulerGet());
    manager->flush();  // the end of the run-loop pass
  }
  state.counters["entries"] = static_cast<double>(manager->copyEntries().count());
  state.counters["file writes per resync"] =
      static_cast<double>(manager->fileWrites() - writesBefore) /
      static_cast<double>(state.iterations());

  scheduling::eventSchedulerTearDown();
  model::eventListTearDown();
  scheduling::queueControllerListTearDown();
  scheduling::powerEventsSetManager(nullptr, nullptr);
  manager.reset();
  std::filesystem::remove_all(root);
}
BENCHMARK(eventSchedulerResync)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

// A resync through the real date-time controller with its warnings: each of
// the events is taken out and queued again, and each change of the pending
// list is announced.
void dateTimeResyncWithWarnings(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  auto loop = nightjar::runloop::RunLoop::create();
  const nightjar::runloop::Clock& clock = nightjar::runloop::systemClock();
  nightjar::notifications::notificationControllerCreate(clock, loop->timerFactory(), {});
  model::eventListSetUp();
  scheduling::queueControllerListSetUp();
  scheduling::QueueControllerList* controllers = scheduling::queueControllerListGet();
  scheduling::queueControllerListAppend(
      controllers, scheduling::dateTimeQueueControllerCreate(clock, loop->timerFactory(), {}));
  scheduling::eventSchedulerSetUp(model::eventListGet(), controllers);
  const double start = clock.now() + 86400;
  for (int i = 0; i < count; ++i)
    model::eventListStore(model::eventListGet(), wakeEvent(i, start + 60.0 * ((i * 7919) % count)));
  for (auto _ : state)
    scheduling::eventSchedulerResync(scheduling::eventSchedulerGet());
  scheduling::eventSchedulerTearDown();
  model::eventListTearDown();
  scheduling::queueControllerListTearDown();
  nightjar::notifications::notificationControllerDestroy();
}
BENCHMARK(dateTimeResyncWithWarnings)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

// The snapshot that every save of the state takes: each queue is checked for
// text that XML cannot carry before it goes in.
void queueControllerListCopyQueues(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  scheduling::queueControllerListSetUp();
  scheduling::QueueControllerList* controllers = scheduling::queueControllerListGet();
  scheduling::QueueController* controller =
      scheduling::queueControllerCreate("DateTime", {}, {byDate, nullptr});
  scheduling::queueControllerListAppend(controllers, controller);
  nightjar::plist::Array events;
  for (int i = 0; i < count; ++i)
    events.push_back(wakeEvent(i, 1e9 + i).with(kDateKey, Value::date(1e9 + i)));
  scheduling::queueControllerReplaceAll(controller, Value::array(std::move(events)));
  for (auto _ : state)
    benchmark::DoNotOptimize(scheduling::queueControllerListCopyQueues(controllers));
  scheduling::queueControllerListTearDown();
}
BENCHMARK(queueControllerListCopyQueues)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

}  // namespace
