#include "platform/linux/file_preferences_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "logging/logging.h"
#include "platform/linux/atomic_file.h"
#include "platform/linux/daemon_root.h"
#include "plist/xml.h"

namespace nightjar::platform::linux_adapter {
namespace {

constexpr std::string_view kStoreFolder = "/var/lib/nightjar";
constexpr std::string_view kStoreFile = "/var/lib/nightjar/preferences.plist";
constexpr std::string_view kForcedFile = "/etc/nightjar/forced.plist";
// Anything larger is not a file this daemon wrote: treated as corrupt.
constexpr std::size_t kMaxFileBytes = 16 * 1024 * 1024;
constexpr mode_t kFileMode = 0644;
constexpr mode_t kFolderMode = 0755;

// A missing or unreachable file has the identity "does not exist".
FileIdentity statIdentity(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0)
    return {};
  return identityOf(st);
}

enum class ReadOutcome { Ok, Missing, Empty, Unreadable, Corrupt };

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
  if (static_cast<std::uint64_t>(st.st_size) > kMaxFileBytes) {
    result.outcome = ReadOutcome::Corrupt;
  } else if (int error = readBounded(fd.get(), bytes, kMaxFileBytes); error != 0) {
    result.error = error;
    result.outcome = ReadOutcome::Unreadable;
  } else if (bytes.empty()) {
    result.outcome = ReadOutcome::Empty;
  } else {
    plist::Value document = plist::parseXml(bytes, {.maxBytes = kMaxFileBytes});
    if (const plist::Dictionary* entries = document.asDictionary()) {
      result.entries = *entries;
    } else {
      result.outcome = ReadOutcome::Corrupt;
    }
  }
  return result;
}

void logOutcome(const std::string& path, const ReadResult& result) {
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
    case ReadOutcome::Unreadable:
      logging::logMessage(LOG_ERR,
                          "%s: Preferences file unreadable, reading as empty; path: %s; error: %d",
                          "readPreferences", path.c_str(), result.error);
      return;
    case ReadOutcome::Corrupt:
      logging::logMessage(LOG_ERR, "%s: Preferences file corrupt, reading as empty; path: %s",
                          "readPreferences", path.c_str());
      return;
  }
}

// A file the store reads, with the version held in memory. A file is read,
// and a bad one logged, only once per version, not on every look.
struct TrackedFile {
  std::string path;
  std::optional<FileIdentity> known;  // none until first read

  // Re-reads into `entries` when the file changed since the last look;
  // answers whether it did.
  bool refresh(plist::Dictionary& entries) {
    FileIdentity now = statIdentity(path);
    if (known && *known == now)
      return false;
    ReadResult result = readDictionaryFile(path);
    known = result.identity.exists ? result.identity : now;
    entries = std::move(result.entries);
    logOutcome(path, result);
    return true;
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
        store_{underRoot(root_, kStoreFile), {}},
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
    if (store_.refresh(values_))
      unsaved_ = false;
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
      unsaved_ = false;
    } else if (unsaved_) {
      write();
    }
    forced_.refresh(forcedValues_);
  }

  bool isForced(std::string_view key) override { return forcedValues_.contains(key); }

 private:
  bool write() {
    std::string document = plist::writeXml(plist::Value::dictionary(values_));
    int error = makeStoreFolder(root_);
    if (error == 0)
      error = writeFileAtomically(folder_, store_.path, document, kFileMode);
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
  bool unsaved_ = false;  // the view holds changes that are not on disk
};

}  // namespace

std::unique_ptr<PreferencesStore> makeFilePreferencesStore(std::string root) {
  return std::make_unique<FilePreferencesStore>(std::move(root));
}

}  // namespace nightjar::platform::linux_adapter
