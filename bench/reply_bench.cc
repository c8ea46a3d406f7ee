// The XML writer alone on the very arrays that "scheduler.events" answered
// in a black-box run: the reference of that request's round trip. Each file
// named in NIGHTJAR_BENCH_EVENTS (separated by ':') holds one array as a
// property list; its case is named writeEventsXml/<number of events>.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

#include "plist/xml.h"

namespace {

using nightjar::plist::Value;

Value readArray(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  nightjar::plist::XmlLimits limits;
  limits.maxBytes = 256u << 20;
  return nightjar::plist::parseXml(text.str(), limits);
}

void registerFile(const std::string& path) {
  const Value events = readArray(path);
  if (events.asArray() == nullptr)
    return;
  const std::string name = "writeEventsXml/" + std::to_string(events.asArray()->size());
  benchmark::RegisterBenchmark(name.c_str(), [events](benchmark::State& state) {
    std::size_t bytes = 0;
    for (auto _ : state) {
      std::string text = nightjar::plist::writeXml(events);
      bytes = text.size();
      benchmark::DoNotOptimize(text);
    }
    state.counters["bytes"] = static_cast<double>(bytes);
  })->Unit(benchmark::kMillisecond);
}

}  // namespace

int main(int argc, char** argv) {
  const char* files = std::getenv("NIGHTJAR_BENCH_EVENTS");
  std::string_view rest = files != nullptr ? files : "";
  while (!rest.empty()) {
    const std::size_t colon = rest.find(':');
    registerFile(std::string(rest.substr(0, colon)));
    rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
