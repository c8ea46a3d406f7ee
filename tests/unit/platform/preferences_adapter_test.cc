// The file store against real files under a temporary root.
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <set>

#include <gtest/gtest.h>

#include "fakes/recording_log_sink.h"
#include "persistence/preferences.h"
#include "platform/linux/file_preferences_store.h"
#include "platform/stored_file_limit.h"
#include "platform/temporary_root.h"
#include "plist/xml.h"

namespace nightjar::platform::linux_adapter {
namespace {

namespace fs = std::filesystem;
using plist::Value;

using testing::readFile;

// Written as another process would: a new file renamed into place.
void writeFile(const fs::path& path, const std::string& text) {
  testing::writeFile(path.string() + ".new", text);
  fs::rename(path.string() + ".new", path);
}

const auto plistText = [](const plist::Dictionary& entries) {
  return plist::writeXml(Value::dictionary(entries));
};

class PreferencesAdapterTest : public ::testing::Test {
 protected:
  void TearDown() override { persistence::preferencesSetStore(nullptr); }
  fs::path folder() const { return root_ / "var/lib/nightjar"; }
  fs::path file() const { return folder() / "preferences.plist"; }
  fs::path forcedFile() const { return root_ / "etc/nightjar/forced.plist"; }
  std::unique_ptr<PreferencesStore> makeStore() { return makeFilePreferencesStore(root_); }
  std::size_t folderEntries() const {
    return std::distance(fs::directory_iterator(folder()), fs::directory_iterator());
  }

  testing::TemporaryRoot temporary_;
  fs::path root_ = temporary_.path;
  testing::RecordingLogSink log_;
};

TEST_F(PreferencesAdapterTest, WritesA0644PlistThatTheNextStoreReads) {
  auto store = makeStore();
  EXPECT_EQ(fs::status(folder()).permissions(), fs::perms(0755));
  ASSERT_TRUE(store->setValue("a", Value::real(1.5)));
  ASSERT_TRUE(store->setValue("b", Value::boolean(true)));
  ASSERT_TRUE(store->setValue("b", Value()));
  EXPECT_EQ(fs::status(file()).permissions(), fs::perms(0644));
  EXPECT_EQ(plist::parseXml(readFile(file())), Value::dictionary({{"a", Value::real(1.5)}}));
  EXPECT_EQ(folderEntries(), 1u);  // no temporary file left behind
  EXPECT_EQ(makeStore()->copyValue("a"), Value::real(1.5));
}

TEST_F(PreferencesAdapterTest, BadFilesReadAsEmptyAndAreLoggedOncePerVersion) {
  const char* kinds[] = {"empty", "garbage", "directory", "fifo", "oversized", "array"};
  for (std::string_view kind : kinds) {
    SCOPED_TRACE(kind);
    fs::remove_all(root_ / "var");
    fs::create_directories(folder());
    if (kind == "directory")
      fs::create_directories(file() / "x");
    else if (kind == "fifo")  // must not block the reader
      ASSERT_EQ(::mkfifo(file().c_str(), 0644), 0);
    else
      writeFile(file(), kind == "array"   ? plist::writeXml(Value::array({}))
                        : kind == "empty" ? ""
                                          : "garbage");
    if (kind == "oversized")
      fs::resize_file(file(), kMaxStoredFileBytes + 1);
    log_.lines.clear();
    auto store = makeStore();
    store->synchronize();
    store->synchronize();
    EXPECT_TRUE(store->copyValue("k").isNone());
    EXPECT_EQ(log_.lines.size(), 2u);  // this file, and the missing forced file
    // What could not be read is kept beside, not written over.
    ASSERT_TRUE(store->setValue("k", Value::real(2)));
    EXPECT_EQ(testing::keptAside(file()).size(), kind == "empty" ? 0u : 1u);
    EXPECT_EQ(folderEntries(), kind == "empty" ? 1u : 2u);
  }
}

// Another process's version is read at the next look, and kept by the next
// write; a bad one is kept aside and logged once per version.
TEST_F(PreferencesAdapterTest, FilesReplacedByAnotherProcessWhileRunning) {
  auto store = makeStore();
  ASSERT_TRUE(store->setValue("x", Value::real(1)));
  writeFile(file(), plistText({{"x", Value::real(2)}}));
  EXPECT_EQ(store->copyValue("x"), Value::real(1));  // not before a synchronize
  store->synchronize();
  EXPECT_EQ(store->copyValue("x"), Value::real(2));
  writeFile(file(), plistText({{"x", Value::real(3)}}));
  ASSERT_TRUE(store->setValue("y", Value::real(4)));
  EXPECT_EQ(plist::parseXml(readFile(file())).get("x"), Value::real(3));

  writeFile(file(), "<plist><dict><key>k</key>");
  log_.lines.clear();
  store->synchronize();
  store->synchronize();
  EXPECT_TRUE(store->copyValue("x").isNone());
  ASSERT_EQ(log_.lines.size(), 1u);
  EXPECT_EQ(log_.lines[0].first, LOG_ERR);
  EXPECT_NE(log_.lines[0].second.find("corrupt"), std::string::npos);
  EXPECT_NE(log_.lines[0].second.find("kept as " + file().string() + ".unreadable-"),
            std::string::npos);
  writeFile(file(), "still <garbage>");
  store->synchronize();
  EXPECT_EQ(log_.lines.size(), 2u);
  ASSERT_TRUE(store->setValue("j", Value::real(2)));  // and the next write repairs the file
  EXPECT_EQ(plist::parseXml(readFile(file())), Value::dictionary({{"j", Value::real(2)}}));
  EXPECT_EQ(testing::keptAside(file()),
            (std::multiset<std::string>{"<plist><dict><key>k</key>", "still <garbage>"}));
  EXPECT_EQ(store->storedBytes(), readFile(file()).size());
}

// given files written by hand: wrong types read as defaults, forced values win
TEST_F(PreferencesAdapterTest, HandWrittenFilesThroughTheSettingsPattern) {
  writeFile(file(), plistText({{"notificationcontroller.notifyperiod", Value::string("soon")},
                               {"eventaction.cfnotifier", Value::integer(1)}}));
  writeFile(forcedFile(), plistText({{"eventscheduler.enabled", Value::boolean(false)}}));
  const std::string forcedText = readFile(forcedFile());
  auto store = makeStore();
  persistence::preferencesSetStore(store.get());
  using namespace persistence;
  EXPECT_EQ(preferencesGetNumber(kNotifyPeriodKey, kNotifyPeriodDefault), 900);
  EXPECT_FALSE(preferencesGetBoolean(kConsoleNotifierKey, kConsoleNotifierDefault));
  EXPECT_TRUE(store->isForced(kSchedulerEnabledKey));
  EXPECT_FALSE(preferencesSetAndReadBackBoolean(kSchedulerEnabledKey, true, true));
  EXPECT_EQ(preferencesSetAndReadBackNumber(kNotifyPeriodKey, 60, kNotifyPeriodDefault), 60);
  EXPECT_EQ(readFile(forcedFile()), forcedText);

  writeFile(forcedFile(), "not a plist");  // a corrupt forced file forces nothing
  EXPECT_FALSE(preferencesSetAndReadBackBoolean(kSchedulerEnabledKey, false, true));
  EXPECT_FALSE(store->isForced(kSchedulerEnabledKey));
  EXPECT_EQ(plist::parseXml(readFile(file())).get(kSchedulerEnabledKey), Value::boolean(false));
}

// A full disk, as seen by the writer: the file-size limit fails the write with
// EFBIG even for root.
TEST_F(PreferencesAdapterTest, FailedWriteKeepsTheOldFileAndIsRetried) {
  auto store = makeStore();
  ASSERT_TRUE(store->setValue("small", Value::real(1)));
  const std::string before = readFile(file());
  auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit old{};
  ::getrlimit(RLIMIT_FSIZE, &old);
  rlimit small = old;
  small.rlim_cur = 4096;
  ::setrlimit(RLIMIT_FSIZE, &small);
  bool written = store->setValue("big", Value::data(plist::Bytes(64 * 1024, 7)));
  ::setrlimit(RLIMIT_FSIZE, &old);
  std::signal(SIGXFSZ, oldHandler);
  EXPECT_FALSE(written);
  EXPECT_EQ(readFile(file()), before);
  EXPECT_EQ(folderEntries(), 1u);
  EXPECT_FALSE(store->copyValue("big").isNone());  // the view keeps the change
  store->synchronize();
  EXPECT_FALSE(plist::parseXml(readFile(file())).get("big").isNone());
}

TEST_F(PreferencesAdapterTest, UnusableFolderWorksInMemory) {
  writeFile(root_ / "var", "a file where a folder belongs");
  auto store = makeStore();
  EXPECT_FALSE(store->setValue("k", Value::real(1)));
  EXPECT_EQ(store->copyValue("k"), Value::real(1));
}

}  // namespace
}  // namespace nightjar::platform::linux_adapter
