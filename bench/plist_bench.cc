// Cost of reading and writing the daemon's largest documents: an event list.
#include <benchmark/benchmark.h>

#include <string>

#include "plist/describe.h"
#include "plist/xml.h"

namespace nightjar::plist {
namespace {

Value eventLike(std::int64_t id) {
  Array days;
  for (std::int64_t day = 1; day <= 5; ++day) {
    days.push_back(Value::integer(day));
  }
  return Value::dictionary({
      {"uniqueid", Value::integer(id)},
      {"name", Value::string("Event number " + std::to_string(id))},
      {"enabled", Value::boolean(id % 2 == 0)},
      {"trigger", Value::dictionary({{"type", Value::string("daily")},
                                     {"secondsfrommidnight", Value::integer(id * 37 % 86400)},
                                     {"days", Value::array(std::move(days))}})},
      {"action", Value::dictionary({{"type", Value::string("wake")}})},
  });
}

Value eventList(std::int64_t count) {
  Array events;
  for (std::int64_t id = 0; id < count; ++id) {
    events.push_back(eventLike(id));
  }
  return Value::array(std::move(events));
}

void BM_WriteXml(benchmark::State& state) {
  const Value events = eventList(state.range(0));
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::string text = writeXml(events);
    bytes += text.size();
    benchmark::DoNotOptimize(text);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}

void BM_ParseXml(benchmark::State& state) {
  const std::string text = writeXml(eventList(state.range(0)));
  for (auto _ : state) {
    Value parsed = parseXml(text);
    benchmark::DoNotOptimize(parsed);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(text.size() * state.iterations()));
  state.counters["document_bytes"] = static_cast<double>(text.size());
}

void BM_DescribeValue(benchmark::State& state) {
  const Value events = eventList(state.range(0));
  for (auto _ : state) {
    std::string text = describeValue(events);
    benchmark::DoNotOptimize(text);
  }
}

void BM_Equality(benchmark::State& state) {
  const Value a = eventList(state.range(0));
  const Value b = eventList(state.range(0));
  for (auto _ : state) {
    benchmark::DoNotOptimize(a == b);
  }
}

BENCHMARK(BM_WriteXml)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ParseXml)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DescribeValue)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Equality)->Arg(1000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace nightjar::plist
