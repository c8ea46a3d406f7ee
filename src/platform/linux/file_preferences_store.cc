#include "platform/linux/file_preferences_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string_view>
#include <utility>

#include "logging/logging.h"
#include "platform/linux/atomic_file.h"
#include "platform/linux/daemon_root.h"
#include "plist/xml.h"
#include "plist/xml_write_cache.h"

namespace nightjar::platform::linux_adapter {
namespace {

constexpr std::string_view kStoreFolder = "/var/lib/nightjar";
constexpr std::string_view kStoreFile = "/var/lib/nightjar/preferences.plist";
constexpr std::string_view kForcedFile = "/etc/nightjar/forced.plist";
constexpr mode_t kFileMode = 0644;
constexpr mode_t kFolderMode = 0755;

// A missing or unreachable file has the identity "does not exist".
FileIdentity statIdentity(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0)
    return {};
  return identityOf(st);
}

enum class ReadOutcome { Ok, Missing, Empty, Unreadable, TooLarge, Corrupt };

struct ReadResult {
  ReadOutcome outcome = ReadOutcome::Ok;
  int error = 0;
  FileIdentity identity;
  plist::Dictionary entries;
};

// The file's dictionary. Non-blocking open so that a FIFO put in the file's
// place cannot stall the run loop; anything but a regular file is unreadable.
ReadResult readDictionaryFile(const std::string& path) {
  ReadResult result;
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (fd.get() < 0) {
    result.error = errno;
    result.outcome = result.error == ENOENT ? ReadOutcome::Missing : ReadOutcome::Unreadable;
    return result;
  }
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) {
    result.error = errno;
    result.outcome = ReadOutcome::Unreadable;
    return result;
  }
  result.identity = identityOf(st);
  if (!S_ISREG(st.st_mode)) {
    result.error = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    result.outcome = ReadOutcome::Unreadable;
    return result;
  }
  std::string bytes;
  const std::size_t limit = storedFileLimit();
  if (static_cast<std::uint64_t>(st.st_size) > limit) {
    result.outcome = ReadOutcome::TooLarge;
    return result;
  }
  bytes.reserve(static_cast<std::size_t>(st.st_size));  // one buffer: the read never regrows it
  if (int error = readBounded(fd.get(), bytes, limit); error != 0) {
    result.error = error;
    result.outcome = ReadOutcome::Unreadable;
  } else if (bytes.size() > limit) {
    result.outcome = ReadOutcome::TooLarge;
  } else if (bytes.empty()) {
    result.outcome = ReadOutcome::Empty;
  } else {
    plist::Value document = plist::parseXml(bytes, {.maxBytes = limit});
    if (const plist::Dictionary* entries = document.asDictionary()) {
      result.entries = *entries;
    } else {
      result.outcome = ReadOutcome::Corrupt;
    }
  }
  return result;
}

// Only a file that holds something the store cannot take is kept aside: a
// missing or empty one holds nothing to lose.
bool isUnreadable(ReadOutcome outcome) {
  return outcome == ReadOutcome::Unreadable || outcome == ReadOutcome::TooLarge ||
         outcome == ReadOutcome::Corrupt;
}

const char* describe(ReadOutcome outcome) {
  switch (outcome) {
    case ReadOutcome::TooLarge:
      return "too large";
    case ReadOutcome::Corrupt:
      return "corrupt";
    default:
      return "unreadable";
  }
}

// `keptAs`: where an unreadable file was moved, empty when it was not moved.
void logOutcome(const std::string& path, const ReadResult& result, const std::string& keptAs) {
  switch (result.outcome) {
    case ReadOutcome::Ok:
      return;
    case ReadOutcome::Missing:
      logging::logMessage(LOG_INFO, "%s: No preferences file, reading as empty; path: %s",
                          "readPreferences", path.c_str());
      return;
    case ReadOutcome::Empty:
      logging::logMessage(LOG_INFO, "%s: Empty preferences file, reading as empty; path: %s",
                          "readPreferences", path.c_str());
      return;
    default:
      break;
  }
  if (!keptAs.empty()) {
    logging::logMessage(LOG_ERR, "%s: Preferences file %s, kept as %s; reading as empty; path: %s",
                        "readPreferences", describe(result.outcome), keptAs.c_str(), path.c_str());
  } else {
    logging::logMessage(LOG_ERR, "%s: Preferences file %s, reading as empty; path: %s; error: %d",
                        "readPreferences", describe(result.outcome), path.c_str(), result.error);
  }
}

// A file the store reads, with the version held in memory. A file is read,
// and a bad one logged, only once per version, not on every look.
struct TrackedFile {
  std::string path;
  std::optional<FileIdentity> known;  // none until first read
  // A file the daemon writes is moved aside when it cannot be read, rather
  // than overwritten by the next write; one that could not be moved blocks
  // every write until it is.
  bool keepsUnreadable = false;
  bool blocked = false;
  std::size_t bytes = 0;  // size of the version read

  // Re-reads into `entries` when the file changed since the last look;
  // answers whether it did.
  bool refresh(plist::Dictionary& entries) {
    FileIdentity now = statIdentity(path);
    if (known && *known == now)
      return false;
    ReadResult result = readDictionaryFile(path);
    known = result.identity.exists ? result.identity : now;
    bytes = result.outcome == ReadOutcome::Ok ? static_cast<std::size_t>(result.identity.size) : 0;
    entries = std::move(result.entries);
    blocked = false;
    std::string keptAs;
    if (keepsUnreadable && isUnreadable(result.outcome)) {
      keptAs = moveAside();
      blocked = keptAs.empty();
    }
    logOutcome(path, result, keptAs);
    return true;
  }

  // Moves the unreadable file out of the way; answers where, or empty.
  std::string moveAside() {
    int error = 0;
    std::string aside = keepAside(path, std::time(nullptr), error);
    if (!aside.empty())
      known = statIdentity(path);
    return aside;
  }

  // Whether the file may be replaced: not while it holds what could not be read.
  bool writable() {
    if (blocked && !moveAside().empty()) {
      blocked = false;
      logging::logMessage(LOG_ERR, "%s: Unreadable preferences file moved aside; path: %s",
                          "writePreferences", path.c_str());
    }
    return !blocked;
  }
};

// Creates the store's folder and its missing parents below the root. The mode
// is set explicitly because mkdir's is cut by the umask. Answers 0 or errno.
int makeStoreFolder(const std::string& root) {
  return makeFolders(root, kStoreFolder, kFolderMode);
}

class FilePreferencesStore final : public PreferencesStore {
 public:
  explicit FilePreferencesStore(std::string root)
      : root_(std::move(root)),
        folder_(underRoot(root_, kStoreFolder)),
        store_{underRoot(root_, kStoreFile), {}, /*keepsUnreadable=*/true},
        forced_{underRoot(root_, kForcedFile), {}} {
    makeStoreFolder(root_);
    synchronize();
  }

  plist::Value copyValue(std::string_view key) override {
    if (auto it = forcedValues_.find(key); it != forcedValues_.end())
      return it->second;
    if (auto it = values_.find(key); it != values_.end())
      return it->second;
    return {};
  }

  bool setValue(std::string_view key, const plist::Value& value) override {
    if (store_.refresh(values_)) {
      storedBytes_ = store_.bytes;
      unsaved_ = false;
    }
    auto it = values_.find(key);
    bool unchanged = value ? it != values_.end() && it->second == value : it == values_.end();
    // Save-on-change writes the same state often; an unchanged store needs no write.
    if (unchanged && !unsaved_)
      return true;
    if (!value) {
      values_.erase(it);
    } else if (it == values_.end()) {
      values_.emplace(std::string(key), value);
    } else {
      it->second = value;
    }
    return write();
  }

  void synchronize() override {
    if (store_.refresh(values_)) {
      storedBytes_ = store_.bytes;
      unsaved_ = false;
    } else if (unsaved_) {
      write();
    }
    forced_.refresh(forcedValues_);
  }

  bool isForced(std::string_view key) override { return forcedValues_.contains(key); }

  std::size_t storedBytes() const override { return storedBytes_; }

  std::size_t maxStoredBytes() const override { return storedFileLimit(); }

 private:
  bool write() {
    // Only the records that changed since the last write are serialised, and
    // the document is written from its pieces, never joined.
    const plist::XmlPieces document =
        plist::writeXmlPieces(plist::Value::dictionary(values_), writeCache_);
    storedBytes_ = document.size;
    // What would not be read back is not written: the file keeps the last
    // state that fits. The requests refuse changes long before this.
    int error = document.size > storedFileLimit() ? EFBIG : 0;
    if (error == 0 && !store_.writable())
      error = EEXIST;
    if (error == 0)
      error = makeStoreFolder(root_);
    if (error == 0)
      error = writeFileAtomically(folder_, store_.path, document.pieces, kFileMode);
    unsaved_ = error != 0;
    // Our own write is the version now held: the next look must not re-read it.
    if (!unsaved_)
      store_.known = statIdentity(store_.path);
    return !unsaved_;
  }

  std::string root_;
  std::string folder_;
  TrackedFile store_;
  TrackedFile forced_;
  plist::Dictionary values_;
  plist::Dictionary forcedValues_;
  plist::XmlWriteCache writeCache_;
  std::size_t storedBytes_ = 0;
  bool unsaved_ = false;  // the view holds changes that are not on disk
};

}  // namespace

std::unique_ptr<PreferencesStore> makeFilePreferencesStore(std::string root) {
  return std::make_unique<FilePreferencesStore>(std::move(root));
}

}  // namespace nightjar::platform::linux_adapter
