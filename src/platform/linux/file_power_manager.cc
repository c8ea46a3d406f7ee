#include "platform/linux/file_power_manager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <ctime>
#include <optional>
#include <set>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "logging/logging.h"
#include "platform/linux/atomic_file.h"
#include "platform/linux/daemon_root.h"
#include "plist/xml.h"

namespace nightjar::platform::linux_adapter {
namespace {

constexpr std::string_view kListFolder = "/var/lib/nightjar";
constexpr std::string_view kListFile = "/var/lib/nightjar/powerevents.plist";
constexpr std::string_view kAlarmFile = "/sys/class/rtc/rtc0/wakealarm";
constexpr mode_t kFileMode = 0644;
constexpr mode_t kFolderMode = 0755;
// The alarm's date is checked again this long after it, when it has fired
// (or passed while the machine was up) and the next entry must take over.
constexpr double kAfterAlarm = 1;
// How long until a refused alarm date is offered to the RTC again.
constexpr double kRetryRefused = 3600;

// One entry, its time in whole seconds since 2001 as the file and the RTC
// keep it. Ordered by time first, so the earliest entry leads the set.
struct Entry {
  double time = 0;
  std::string scheduledBy;
  std::string type;
  auto operator<=>(const Entry&) const = default;
};

std::optional<Entry> entryOf(plist::AbsoluteTime date, const std::string& scheduledBy,
                             const std::string& type) {
  if (!std::isfinite(date))
    return std::nullopt;
  return Entry{std::floor(date), scheduledBy, type};
}

std::optional<Entry> entryOf(const plist::Value& member) {
  const std::string* type = member.get(kEntryTypeKey).asString();
  const std::string* by = member.get(kEntryScheduledByKey).asString();
  const std::optional<plist::AbsoluteTime> time = member.get(kEntryTimeKey).asDate();
  if (type == nullptr || by == nullptr || !time)
    return std::nullopt;
  return entryOf(*time, *by, *type);
}

plist::Value valueOf(const Entry& entry) {
  return plist::Value::dictionary(
      {{kEntryTypeKey, plist::Value::string(entry.type)},
       {kEntryTimeKey, plist::Value::date(entry.time)},
       {kEntryScheduledByKey, plist::Value::string(entry.scheduledBy)}});
}

std::string indexKey(const std::string& scheduledBy, const std::string& type) {
  std::string key = scheduledBy;
  key.push_back('\0');
  return key + type;
}

// The file's bytes; nullopt when it is missing (a first start), `error` set
// when it cannot be read or is too large to be ours.
std::optional<std::string> readListFile(const std::string& path, int& error) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (fd.get() < 0) {
    error = errno == ENOENT ? 0 : errno;
    return std::nullopt;
  }
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    error = EINVAL;
    return std::nullopt;
  }
  if (static_cast<std::uint64_t>(st.st_size) > storedFileLimit()) {
    error = EFBIG;
    return std::nullopt;
  }
  std::string bytes;
  error = readBounded(fd.get(), bytes, storedFileLimit());
  if (error == 0 && bytes.size() > storedFileLimit())
    error = EFBIG;
  return error == 0 ? std::optional(std::move(bytes)) : std::nullopt;
}

// What one entry adds to the file at most: its own document's size, whose
// prolog more than covers the deeper indentation inside the list.
std::size_t entryBytes(const plist::Value& entry) {
  return plist::writeXml(entry).size();
}

// Writes `text` over the whole of an existing file. Answers 0 or errno.
int overwrite(const std::string& path, std::string_view text) {
  UniqueFd fd(::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC | O_NOCTTY));
  if (fd.get() < 0)
    return errno;
  const int error = writeAll(fd.get(), text);
  const int closeError = fd.reset();
  return error != 0 ? error : closeError;
}

// The alarm as the RTC reports it: its epoch seconds, 0 for none (the
// kernel prints nothing then), nullopt when it cannot be read.
std::optional<std::int64_t> readAlarm(const std::string& path) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  std::string text;
  if (fd.get() < 0 || readBounded(fd.get(), text, 64) != 0 || text.size() > 64)
    return std::nullopt;
  while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
    text.pop_back();
  if (text.empty())
    return 0;
  std::int64_t seconds = 0;
  const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (fault != std::errc() || end != text.data() + text.size())
    return std::nullopt;
  return seconds;
}

class FilePowerManagerImpl final : public FilePowerManager {
 public:
  FilePowerManagerImpl(const std::string& root, runloop::RunLoop* loop, const runloop::Clock& clock)
      : root_(root),
        folder_(underRoot(root, kListFolder)),
        listPath_(underRoot(root, kListFile)),
        alarmPath_(underRoot(root, kAlarmFile)),
        clock_(clock) {
    load();
    if (loop != nullptr) {
      observer_ = loop->addObserver(runloop::PassStage::WakeEntries,
                                    [this](runloop::Activity) { flush(); });
      alarmCheck_ = loop->addTimer([this] {
        alarmDue_ = true;
        flush();
      });
    }
  }

  ~FilePowerManagerImpl() override {
    observer_.reset();
    alarmCheck_.reset();
    flush();
  }

  plist::Value copyEntries() const override {
    if (!copy_) {
      plist::Array members;
      members.reserve(entries_.size());
      for (const Entry& entry : entries_)
        members.push_back(valueOf(entry));
      copy_ = plist::Value::array(std::move(members));
    }
    return copy_;
  }

  void schedule(plist::AbsoluteTime date, const std::string& scheduledBy,
                const std::string& type) override {
    std::optional<Entry> entry = entryOf(date, scheduledBy, type);
    if (!entry || entries_.contains(*entry))
      return;
    // The file must stay readable: an entry that would pass its bound is not
    // listed (the earlier entries, which wake first, are the ones kept).
    const std::size_t bytes = entryBytes(valueOf(*entry));
    if (listBytes_ + bytes > storedFileLimit()) {
      if (!fullLogged_)
        logging::logMessage(LOG_ERR, "%s: Power events file full, entry not listed; path: %s",
                            "schedulePowerEvent", listPath_.c_str());
      fullLogged_ = true;
      return;
    }
    listBytes_ += bytes;
    entries_.insert(*entry);
    ++listed_[indexKey(scheduledBy, type)];
    changed();
  }

  void cancel(plist::AbsoluteTime date, const std::string& scheduledBy,
              const std::string& type) override {
    std::optional<Entry> entry = entryOf(date, scheduledBy, type);
    if (entry && entries_.erase(*entry) == 1) {
      unlist(*entry);
      changed();
    }
  }

  bool isListed(const std::string& scheduledBy, const std::string& type) const override {
    return listed_.contains(indexKey(scheduledBy, type));
  }

  void flush() override {
    prune();
    if (listChanged_)
      writeList();
    const std::int64_t target = alarmTarget();
    if (alarmDue_ || target != attempted_)
      setAlarm(target);
    alarmDue_ = false;
  }

  void rearm() override { alarmDue_ = true; }

  std::uint64_t fileWrites() const override { return fileWrites_; }

 private:
  void changed() {
    listChanged_ = true;
    copy_ = {};
  }

  void unlist(const Entry& entry) {
    listBytes_ -= std::min(listBytes_, entryBytes(valueOf(entry)));
    auto it = listed_.find(indexKey(entry.scheduledBy, entry.type));
    if (it != listed_.end() && --it->second == 0)
      listed_.erase(it);
  }

  void load() {
    int error = 0;
    std::optional<std::string> bytes = readListFile(listPath_, error);
    plist::Value list =
        bytes ? plist::parseXml(*bytes, {.maxBytes = storedFileLimit()}) : plist::Value();
    std::size_t malformed = 0;
    for (std::size_t i = 0; i < list.count(); ++i) {
      std::optional<Entry> entry = entryOf(list.at(i));
      if (entry && entries_.insert(*entry).second) {
        listBytes_ += entryBytes(valueOf(*entry));
        ++listed_[indexKey(entry->scheduledBy, entry->type)];
      } else if (!entry) {
        ++malformed;
      }
    }
    if (error != 0 || (bytes && !list.isArray())) {
      // Kept beside, so that the first write does not destroy what it held.
      std::string keptAs = keepAside(listPath_, std::time(nullptr), error);
      logging::logMessage(LOG_ERR,
                          "%s: Power events file unreadable or corrupt, kept as %s; reading as "
                          "empty; path: %s; error: %d",
                          "readPowerEvents", keptAs.empty() ? "nothing" : keptAs.c_str(),
                          listPath_.c_str(), error);
      keepOff_ = keptAs.empty();
    } else if (malformed > 0) {
      logging::logMessage(LOG_ERR, "%s: Ignored %d malformed power events; path: %s",
                          "readPowerEvents", malformed, listPath_.c_str());
    }
  }

  // Entries whose time has come are spent: the RTC cannot be set to them.
  void prune() {
    const double now = clock_.now();
    while (!entries_.empty() && entries_.begin()->time <= now) {
      unlist(*entries_.begin());
      entries_.erase(entries_.begin());
      changed();
    }
  }

  void writeList() {
    const std::string document = plist::writeXml(copyEntries());
    // An unreadable file that could not be moved aside is not overwritten.
    int error = keepOff_ ? EEXIST : 0;
    if (error == 0)
      error = makeFolders(root_, kListFolder, kFolderMode);
    if (error == 0)
      error = writeFileAtomically(folder_, listPath_, document, kFileMode);
    if (error == 0) {
      ++fileWrites_;
      listChanged_ = false;
      writeFailed_ = false;
    } else if (!writeFailed_) {
      // Kept in memory and tried again at the next flush; said once per streak.
      writeFailed_ = true;
      logging::logMessage(LOG_ERR, "%s: Power events file not written; path: %s; error: %d",
                          "writePowerEvents", listPath_.c_str(), error);
    }
  }

  // Epoch seconds of the earliest entry (all are in the future after a
  // prune), or 0 for none.
  std::int64_t alarmTarget() const {
    if (entries_.empty())
      return 0;
    return static_cast<std::int64_t>(runloop::toUnixSeconds(entries_.begin()->time));
  }

  // The RTC takes a new alarm only once the old one is cleared, hence "0"
  // first. Reading it back tells whether the hardware took the date. Each
  // target is tried once (and again after rearm), so a missing or refusing
  // RTC costs nothing on later passes.
  void setAlarm(std::int64_t target) {
    attempted_ = target;
    int error = overwrite(alarmPath_, "0");
    if (error == ENOENT) {
      watchAlarm(target, /*refused=*/false);
      if (!noRtcLogged_)
        logging::logMessage(LOG_ERR,
                            "%s: No RTC wake alarm, power events are kept but cannot wake the "
                            "machine; path: %s",
                            "setWakeAlarm", alarmPath_.c_str());
      noRtcLogged_ = true;
      return;
    }
    if (error == 0 && target != 0)
      error = overwrite(alarmPath_, std::to_string(target));
    const bool taken = error == 0 && readAlarm(alarmPath_) == target;
    watchAlarm(target, !taken);
    if (taken || target == refusedLogged_)
      return;
    refusedLogged_ = target;
    if (target == 0) {
      logging::logMessage(LOG_ERR, "%s: The RTC did not clear its wake alarm; path: %s; error: %d",
                          "setWakeAlarm", alarmPath_.c_str(), error);
      return;
    }
    const double date = runloop::fromUnixSeconds(static_cast<double>(target));
    logging::logMessage(LOG_ERR,
                        "%s: The RTC did not take the wake alarm for %@, keeping the entry; "
                        "path: %s; error: %d",
                        "setWakeAlarm", plist::Value::date(date), alarmPath_.c_str(), error);
  }

  // Once the alarm's date has passed, the next entry must be armed. A date
  // the RTC refused is tried again now and then: many RTCs take only dates
  // up to a day or a month ahead, and the date comes nearer.
  void watchAlarm(std::int64_t target, bool refused) {
    if (alarmCheck_ == nullptr)
      return;
    if (target == 0) {
      alarmCheck_->park();
      return;
    }
    double next = runloop::fromUnixSeconds(static_cast<double>(target)) + kAfterAlarm;
    if (refused)
      next = std::min(next, clock_.now() + kRetryRefused);
    alarmCheck_->setNextFireDate(next);
  }

  const std::string root_;
  const std::string folder_;
  const std::string listPath_;
  const std::string alarmPath_;
  const runloop::Clock& clock_;
  std::set<Entry> entries_;
  std::unordered_map<std::string, int> listed_;  // identifier and type -> entries
  mutable plist::Value copy_;                    // copyEntries' answer until a change
  bool listChanged_ = false;                     // the file is behind the list
  bool alarmDue_ = true;                         // set the alarm at the next flush
  std::int64_t attempted_ = -1;                  // the alarm last set; -1: none yet
  std::int64_t refusedLogged_ = -1;
  bool writeFailed_ = false;
  std::size_t listBytes_ = 0;  // upper bound of the file's size
  bool fullLogged_ = false;
  bool keepOff_ = false;  // the file holds what could not be read
  bool noRtcLogged_ = false;
  std::uint64_t fileWrites_ = 0;
  std::unique_ptr<runloop::ObserverHandle> observer_;
  std::unique_ptr<runloop::Timer> alarmCheck_;
};

}  // namespace

std::unique_ptr<FilePowerManager> makeFilePowerManager(const std::string& root,
                                                       runloop::RunLoop* loop,
                                                       const runloop::Clock& clock) {
  return std::make_unique<FilePowerManagerImpl>(root, loop, clock);
}

}  // namespace nightjar::platform::linux_adapter
