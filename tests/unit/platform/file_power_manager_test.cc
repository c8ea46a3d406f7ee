// The entry list in "powerevents.plist" and the RTC alarm, under a temporary
// root: against a simple model, across restarts, with a faulty or missing
// RTC, and on the real run loop.

#include <cmath>
#include <filesystem>
#include <random>
#include <set>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/fake_timer.h"
#include "fakes/recording_log_sink.h"
#include "platform/linux/file_power_manager.h"
#include "platform/stored_file_limit.h"
#include "platform/temporary_root.h"
#include "plist/describe.h"
#include "plist/xml.h"
#include "runloop/run_loop.h"
#include "scheduling/power_events.h"

namespace nightjar::platform::linux_adapter {
namespace {

namespace fs = std::filesystem;
using plist::Value;
using testing::readFile;
using testing::writeFile;

constexpr char kListFile[] = "/var/lib/nightjar/powerevents.plist";
constexpr char kAlarmFile[] = "/sys/class/rtc/rtc0/wakealarm";

const auto entry = [](double time, const std::string& by, const std::string& type) {
  return Value::dictionary({{"eventtype", Value::string(type)},
                            {"time", Value::date(time)},
                            {"scheduledby", Value::string(by)}});
};
const auto epoch = [](double time) {
  return std::to_string(static_cast<long long>(runloop::toUnixSeconds(time)));
};

class FilePowerManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(root.path.empty());
    writeFile(root / kAlarmFile, "");
  }

  std::unique_ptr<FilePowerManager> open(runloop::RunLoop* loop = nullptr) {
    return makeFilePowerManager(root.path, loop, clock);
  }
  std::string alarm() const { return readFile(root / kAlarmFile); }
  Value listFile() const { return plist::parseXml(readFile(root / kListFile)); }

  testing::TemporaryRoot root;
  fakes::FakeClock clock{800000000};
  testing::RecordingLogSink log;
};

// The model: a set of (whole-second time, identifier, type); after a flush it
// holds only future entries, the earliest of which is the alarm.
using ModelEntry = std::tuple<double, std::string, std::string>;

const auto modelList = [](const std::set<ModelEntry>& model) {
  plist::Array members;
  for (const auto& [time, by, type] : model)
    members.push_back(entry(time, by, type));
  return Value::array(std::move(members));
};

TEST_F(FilePowerManagerTest, TheFilesFollowAModelThroughRandomChangesAndARestart) {
  std::mt19937 random(20261123);
  auto manager = open();
  scheduling::powerEventsSetManager(manager.get(), &clock);
  std::set<ModelEntry> model;
  const char* types[] = {"wake", "wakepoweron"};
  const auto owner = [](unsigned n) {
    return (n % 2 ? "com.other." : "quillon.nightjar.") + std::to_string(n / 2);
  };
  const auto listed = [&](const std::string& by, const std::string& type) {
    return std::ranges::any_of(
        model, [&](const ModelEntry& e) { return std::get<1>(e) == by && std::get<2>(e) == type; });
  };
  const auto pick = [&] { return std::next(model.begin(), random() % model.size()); };
  for (int step = 0; step < 3000; ++step) {
    const int choice = static_cast<int>(random() % 100);
    if (choice < 50) {
      // A date around now, sometimes in the past, sometimes with a fraction.
      const double date = clock.now() + static_cast<double>(random() % 4000) - 500 +
                          (random() % 4 == 0 ? 0.5 : 0.0);
      const std::string by = owner(random() % 80);
      const std::string type = types[random() % 2];
      manager->schedule(date, by, type);
      model.insert({std::floor(date), by, type});
    } else if (choice < 55 && !model.empty()) {
      const auto& [time, by, type] = *pick();
      manager->schedule(time + 0.5, by, type);  // listed already: listed once
    } else if (choice < 85 && !model.empty()) {
      auto it = pick();
      // Cancelling takes the date as the caller had it, fraction and all.
      manager->cancel(std::get<0>(*it) + (random() % 2 ? 0.25 : 0), std::get<1>(*it),
                      std::get<2>(*it));
      model.erase(it);
    } else if (choice < 87) {
      scheduling::powerEventsPurgeAll();
      std::erase_if(model, [](const ModelEntry& e) {
        return std::get<1>(e).starts_with("quillon.nightjar.");
      });
    } else if (choice < 95) {
      clock.advance(static_cast<double>(random() % 300));
    } else {
      manager->flush();
      std::erase_if(model, [&](const ModelEntry& e) { return std::get<0>(e) <= clock.now(); });
      ASSERT_EQ(listFile(), modelList(model)) << "step " << step;
      ASSERT_EQ(alarm(), model.empty() ? "0" : epoch(std::get<0>(*model.begin())))
          << "step " << step;
      ASSERT_EQ(manager->copyEntries(), modelList(model));
      for (unsigned n = 0; n < 80; ++n) {
        for (const char* type : types)
          ASSERT_EQ(manager->isListed(owner(n), type), listed(owner(n), type)) << "step " << step;
      }
    }
  }
  // Written when it goes; a restart reads back exactly that and rewrites nothing.
  scheduling::powerEventsSetManager(nullptr, nullptr);
  manager.reset();
  std::erase_if(model, [&](const ModelEntry& e) { return std::get<0>(e) <= clock.now(); });
  EXPECT_EQ(fs::status(root / kListFile).permissions(), fs::perms(0644));
  manager = open();
  EXPECT_EQ(manager->copyEntries(), modelList(model));
  ASSERT_FALSE(model.empty());
  const auto& [time, by, type] = *model.begin();
  EXPECT_TRUE(manager->isListed(by, type));
  manager->schedule(time, by, type);
  manager->flush();
  EXPECT_EQ(manager->fileWrites(), 0u);
  EXPECT_TRUE(log.lines.empty());
}

TEST_F(FilePowerManagerTest, ABadFileReadsAsEmptyIsKeptAsideAndIsLoggedOnce) {
  std::multiset<std::string> bad;
  for (const std::string& text :
       {std::string("garbage"), plist::writeXml(Value::string("x")), std::string("oversized")}) {
    writeFile(root / kListFile, text);
    if (text == "oversized")
      fs::resize_file(root / kListFile, kMaxStoredFileBytes + 1);
    bad.insert(readFile(root / kListFile));
    log.lines.clear();
    auto manager = open();
    EXPECT_EQ(manager->copyEntries(), Value::array({}));
    EXPECT_EQ(log.lines.size(), 1u);
    manager->schedule(clock.now() + 10, "quillon.nightjar.x", "wake");
    manager->flush();
    EXPECT_EQ(listFile().count(), 1u);  // a good file beside the bad one
  }
  EXPECT_EQ(testing::keptAside(root / kListFile), bad);  // each kept whole
  // Well-formed entries of a partly bad file are kept.
  writeFile(root / kListFile,
            plist::writeXml(Value::array({entry(clock.now() + 5, "a", "wake"), Value::string("x"),
                                          Value::dictionary({{"time", Value::date(1)}})})));
  log.lines.clear();
  EXPECT_EQ(open()->copyEntries(), Value::array({entry(clock.now() + 5, "a", "wake")}));
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_NE(log.lines[0].second.find("Ignored 2 malformed power events"), std::string::npos);
}

// The entries are kept without an RTC, and with one that fails every write or
// takes the date and forgets it. That is logged once, or once per date.
TEST_F(FilePowerManagerTest, WithoutAnRtcOrWithOneThatRefusesTheDateTheEntriesAreKept) {
  const double date = clock.now() + 90 * 86400;
  const std::string refused = "setWakeAlarm: The RTC did not take the wake alarm for ";
  const std::string far = refused + plist::describeValue(Value::date(date));
  const std::pair<const char*, std::vector<std::string>> rtcs[] = {
      {nullptr,
       {"setWakeAlarm: No RTC wake alarm, power events are kept but cannot wake the machine; "
        "path: " +
        (root / kAlarmFile)}},
      {"/dev/full", {far, refused, "setWakeAlarm: The RTC did not clear its wake alarm"}},
      {"/dev/null", {far, refused}}};
  for (const auto& [device, lines] : rtcs) {
    SCOPED_TRACE(device ? device : "none");
    fs::remove(root / kListFile);
    fs::remove(root / kAlarmFile);
    if (device != nullptr)
      fs::create_symlink(device, root / kAlarmFile);
    log.lines.clear();
    auto manager = open();
    manager->schedule(date, "quillon.nightjar.far", "wakepoweron");
    manager->flush();
    manager->rearm();
    manager->flush();
    manager->schedule(date - 60, "quillon.nightjar.near", "wake");
    manager->flush();
    EXPECT_EQ(listFile().count(), 2u);
    EXPECT_EQ(fs::exists(root / kAlarmFile), device != nullptr);
    manager->cancel(date, "quillon.nightjar.far", "wakepoweron");
    manager->cancel(date - 60, "quillon.nightjar.near", "wake");
    manager->flush();
    ASSERT_EQ(log.lines.size(), lines.size());
    for (std::size_t i = 0; i < lines.size(); ++i) {
      EXPECT_EQ(log.lines[i].first, LOG_ERR);
      EXPECT_TRUE(log.lines[i].second.starts_with(lines[i])) << log.lines[i].second;
    }
  }
}

TEST_F(FilePowerManagerTest, ASpentAlarmIsSetAgainOnRearmOnly) {
  auto manager = open();
  manager->schedule(clock.now() + 200, "b", "wake");
  manager->schedule(clock.now() + 100, "a", "wake");
  manager->flush();
  EXPECT_EQ(alarm(), epoch(clock.now() + 100));
  writeFile(root / kAlarmFile, "");  // it fired while the machine slept
  manager->flush();
  EXPECT_EQ(alarm(), "");  // nothing changed, nothing written
  manager->rearm();
  manager->flush();
  EXPECT_EQ(alarm(), epoch(clock.now() + 100));
}

// On the real loop: the first pass arms the alarm from the file, ten thousand
// changes in one callback cost one write, and a passed alarm hands over to
// the next entry by itself.
TEST_F(FilePowerManagerTest, OnTheRunLoopTheListIsWrittenOncePerPass) {
  const double now = runloop::systemClock().now();
  writeFile(root / kListFile, plist::writeXml(Value::array({entry(now + 7200, "saved", "wake")})));
  auto loop = runloop::RunLoop::create();
  auto manager = makeFilePowerManager(root.path, loop.get());
  // Every later date is taken when the burst ends, so that a slow machine (or
  // a sanitizer build) that takes long over the burst sees the same passes.
  double soon = 0;
  std::vector<std::string> seen;  // the alarm and the writes at each timer
  std::unique_ptr<runloop::Timer> check, stop;
  check = loop->addTimer(
      [&] { seen.push_back(std::to_string(manager->fileWrites()) + " " + alarm()); });
  // Checked before the pass ends: the alarm's own timer must have moved it.
  stop = loop->addTimer([&] {
    seen.push_back(alarm());
    loop->stop();
  });
  auto burst = loop->addTimer([&] {
    seen.push_back(alarm());
    for (int i = 0; i < 10000; ++i)
      manager->schedule(now + 3600 + i, "quillon.nightjar." + std::to_string(i), "wake");
    const double end = runloop::systemClock().now();
    // Whole seconds past now, so that the check below still sees it coming.
    soon = std::ceil(end + 0.3);
    manager->schedule(soon, "soon", "wake");
    // Not yet due when the burst returns, so the pass ends (and flushes) first.
    check->setNextFireDate(end + 0.05);
    stop->setNextFireDate(soon + 1.2);
  });
  burst->setNextFireDate(now + 0.1);
  EXPECT_EQ(loop->run(), 0);
  // "soon" passed during the run: pruned, and the alarm moved on by itself.
  EXPECT_EQ(seen,
            (std::vector<std::string>{epoch(now + 7200), "1 " + epoch(soon), epoch(now + 3600)}));
  EXPECT_EQ(listFile().count(), 10001u);
  EXPECT_EQ(manager->fileWrites(), 2u);
}

}  // namespace
}  // namespace nightjar::platform::linux_adapter
