// persistenceSave at 1 000 and 10 000 events over the real file store (XML,
// temporary file, fsync of file and folder, rename), with one event changed
// before each save as a client request would, beside a bare atomic write of
// the same number of bytes in the same folder. The "bytes" counter is the
// size of the written file. The folder is $TMPDIR (default /tmp); its file
// system decides what fsync costs.
//
// BM_EngineMemory: the heap that N daily events with warnings take in the
// whole engine (event list, date-time queue, pending list) once saved, the
// save's own keep included ("heap/event"). For resident memory, run it alone
// at 0 and at 1 000 events under /usr/bin/time -v and compare the maximum
// resident set sizes.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <string>

#include "fakes/fake_timer.h"
#include "model/event_list.h"
#include "notifications/notification_controller.h"
#include "persistence/preferences.h"
#include "platform/linux/atomic_file.h"
#include "platform/linux/file_preferences_store.h"
#include "plist/xml.h"
#include "scheduling/date_time_queue_controller.h"
#include "scheduling/event_scheduler.h"
#include "scheduling/queue_controller.h"
#include "state/saved_state.h"

namespace {

using nightjar::plist::Dictionary;
using nightjar::plist::Value;
namespace model = nightjar::model;
namespace persistence = nightjar::persistence;
namespace linux_adapter = nightjar::platform::linux_adapter;

constexpr char kStoreFolder[] = "/var/lib/nightjar";
constexpr char kStoreFile[] = "/var/lib/nightjar/preferences.plist";

Value dailyEvent(int id, int seconds) {
  return Value::dictionary(Dictionary{
      {"uniqueid", Value::string("event-" + std::to_string(id))},
      {"name", Value::string("Event " + std::to_string(id))},
      {"enabled", Value::boolean(true)},
      {"trigger", Value::dictionary(Dictionary{{"type", Value::string("daily")},
                                               {"secondsfrommidnight", Value::integer(seconds)},
                                               {"days", Value::array({Value::string("monday")})}})},
      {"action", Value::dictionary(Dictionary{{"type", Value::string("sleep")}})}});
}

// A fresh daemon root under $TMPDIR, removed again on destruction.
class TemporaryRoot {
 public:
  TemporaryRoot() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/state-bench-XXXXXX";
    path_ = mkdtemp(pattern.data()) != nullptr ? pattern : std::string();
  }
  ~TemporaryRoot() {
    std::error_code ignored;
    if (!path_.empty())
      std::filesystem::remove_all(path_, ignored);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

void BM_PersistenceSave(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  TemporaryRoot root;
  auto store = linux_adapter::makeFilePreferencesStore(root.path());
  persistence::preferencesSetStore(store.get());
  model::eventListSetUp();
  nightjar::scheduling::queueControllerListSetUp();
  for (int id = 0; id < count; ++id)
    model::eventListStore(model::eventListGet(), dailyEvent(id, id % 86400));
  if (model::eventListCopyPublic(model::eventListGet()).count() != static_cast<size_t>(count))
    state.SkipWithError("events refused");
  nightjar::state::persistenceSave();
  int round = 0;
  for (auto _ : state) {
    model::eventListStore(model::eventListGet(), dailyEvent(0, ++round % 86400));
    if (!nightjar::state::persistenceSave())
      state.SkipWithError("save failed");
  }
  struct stat st {};
  stat((root.path() + kStoreFile).c_str(), &st);
  state.counters["bytes"] = static_cast<double>(st.st_size);
  nightjar::scheduling::queueControllerListTearDown();
  model::eventListTearDown();
  persistence::preferencesSetStore(nullptr);
}

// The same number of bytes, written atomically with no state to build.
void BM_BareAtomicWrite(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  nightjar::plist::Array list;
  for (int id = 0; id < count; ++id)
    list.push_back(dailyEvent(id, id % 86400));
  const std::string document = nightjar::plist::writeXml(Value::dictionary(
      Dictionary{{"engine", Value::dictionary(Dictionary{{"events", Value::array(list)},
                                                         {"queues", Value::dictionary({})}})}}));
  TemporaryRoot root;
  linux_adapter::makeFolders(root.path(), kStoreFolder, 0755);
  const std::string folder = root.path() + kStoreFolder;
  const std::string path = root.path() + kStoreFile;
  for (auto _ : state) {
    if (linux_adapter::writeFileAtomically(folder, path, document, 0644) != 0)
      state.SkipWithError("write failed");
  }
  state.counters["bytes"] = static_cast<double>(document.size());
}

// A daily event on five weekdays, at a time of day spread over the whole day.
Value workdayEvent(int id) {
  nightjar::plist::Array days;
  for (const char* day : {"monday", "tuesday", "wednesday", "thursday", "friday"})
    days.push_back(Value::string(day));
  return dailyEvent(id, (id * 7919) % 86400)
      .with("trigger", Value::dictionary(
                           Dictionary{{"type", Value::string("daily")},
                                      {"secondsfrommidnight", Value::integer((id * 7919) % 86400)},
                                      {"days", Value::array(std::move(days))}}));
}

void BM_EngineMemory(benchmark::State& state) {
  namespace scheduling = nightjar::scheduling;
  namespace notifications = nightjar::notifications;
  const int count = static_cast<int>(state.range(0));
  TemporaryRoot root;
  auto store = linux_adapter::makeFilePreferencesStore(root.path());
  persistence::preferencesSetStore(store.get());
  nightjar::fakes::FakeClock clock(815389200);  // 2026-11-03 09:00 UTC
  nightjar::fakes::FakeTimerFactory timers(clock);
  std::size_t heap = 0;
  for (auto _ : state) {
    const std::size_t before = mallinfo2().uordblks;
    model::eventListSetUp();
    notifications::notificationControllerCreate(clock, timers.timerFactory(), {});
    scheduling::queueControllerListSetUp();
    scheduling::queueControllerListAppend(
        scheduling::queueControllerListGet(),
        scheduling::dateTimeQueueControllerCreate(clock, timers.timerFactory(), {}));
    scheduling::eventSchedulerSetUp(model::eventListGet(), scheduling::queueControllerListGet());
    for (int id = 0; id < count; ++id)
      model::eventListStore(model::eventListGet(), workdayEvent(id));
    if (!nightjar::state::persistenceSave())
      state.SkipWithError("save failed");
    heap = mallinfo2().uordblks - before;
    scheduling::eventSchedulerTearDown();
    model::eventListTearDown();
    scheduling::queueControllerListTearDown();
    notifications::notificationControllerDestroy();
  }
  persistence::preferencesSetStore(nullptr);
  state.counters["heap/event"] = count > 0 ? static_cast<double>(heap) / count : 0;
}

BENCHMARK(BM_EngineMemory)->Arg(0)->Arg(1000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PersistenceSave)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BareAtomicWrite)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
