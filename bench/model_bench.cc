// Event containers at the sizes a large installation might reach: storing a
// changed event into the list and into a sorted queue, and the sorted public
// copy of the list that every listing and every save makes.
#include <benchmark/benchmark.h>

#include <compare>
#include <string>
#include <utility>

#include "model/event_list.h"
#include "model/event_queue.h"
#include "plist/value.h"

namespace {

using nightjar::plist::Value;
namespace model = nightjar::model;

Value event(int id, double date, const std::string& name) {
  using nightjar::plist::Dictionary;
  return Value::dictionary(Dictionary{
      {"uniqueid", Value::string("event-" + std::to_string(id))},
      {"name", Value::string(name)},
      {"enabled", Value::boolean(true)},
      {"trigger",
       Value::dictionary(Dictionary{{"type", Value::string("once")}, {"date", Value::date(date)}})},
      {"action", Value::dictionary(Dictionary{{"type", Value::string("wake")}})},
      {"_DateTimeQueueController.Trigger.Date", Value::date(date)}});
}

// A spread of dates and names that is neither sorted nor reversed.
double dateOf(int i, int round) {
  return static_cast<double>((i * 7919 + round * 104729) % 100003);
}
std::string nameOf(int i) {
  return "Event " + std::to_string((i * 7919) % 10007);
}

// `count` events with distinct identifiers, as a restored list holds them.
Value events(int count) {
  nightjar::plist::Array all;
  for (int i = 0; i < count; ++i) {
    all.push_back(event(i, dateOf(i, 0), nameOf(i)));
  }
  return Value::array(std::move(all));
}

std::weak_ordering byDate(const Value& a, const Value& b, void*) {
  return std::weak_order(*a.get("trigger").get("date").asDate(),
                         *b.get("trigger").get("date").asDate());
}

// Each iteration replaces one held event by a changed copy (a new name), so
// every store validates, looks up, replaces and posts "events.modify".
void eventListStore(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  model::eventListSetUp();
  model::EventList* list = model::eventListGet();
  model::eventListReplaceAll(list, events(count));
  int round = 0;
  for (auto _ : state) {
    const int i = round % count;
    state.PauseTiming();
    const Value changed = event(i, dateOf(i, 0), nameOf(i) + " " + std::to_string(round));
    state.ResumeTiming();
    benchmark::DoNotOptimize(model::eventListStore(list, changed));
    ++round;
  }
  model::eventListTearDown();
}
BENCHMARK(eventListStore)->Arg(1000)->Arg(10000);

// Each iteration moves one held event to a new date, so every store replaces
// it and puts it in its new sorted place before "queue.update" is posted.
void eventQueueStore(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  auto queue = model::eventQueueCreate(byDate, nullptr);
  model::eventQueueReplaceAll(queue.get(), events(count));
  // A replace-all keeps the given order; the first store sorts the queue.
  model::eventQueueStore(queue.get(), event(0, -1, nameOf(0)));
  int round = 1;
  for (auto _ : state) {
    const int i = round % count;
    state.PauseTiming();
    const Value moved = event(i, dateOf(i, round), nameOf(i));
    state.ResumeTiming();
    benchmark::DoNotOptimize(model::eventQueueStore(queue.get(), moved));
    ++round;
  }
}
BENCHMARK(eventQueueStore)->Arg(1000)->Arg(10000);

void eventListCopyPublic(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  model::eventListSetUp();
  model::EventList* list = model::eventListGet();
  model::eventListReplaceAll(list, events(count));
  for (auto _ : state) {
    benchmark::DoNotOptimize(model::eventListCopyPublic(list));
  }
  model::eventListTearDown();
}
BENCHMARK(eventListCopyPublic)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
