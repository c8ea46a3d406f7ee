#include "platform/linux/polkit_policy_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/linux/atomic_file.h"
#include "platform/linux/daemon_root.h"
#include "platform/linux/polkit_action_document.h"

namespace nightjar::platform::linux_adapter {
namespace {

constexpr std::string_view kFolder = "/usr/share/polkit-1/actions";
constexpr std::string_view kFile = "/usr/share/polkit-1/actions/quillon.nightjar.policy";
constexpr mode_t kFileMode = 0644;
constexpr mode_t kFolderMode = 0755;
constexpr std::string_view kAllow = "allow";
constexpr std::string_view kPolkitWords[] = {
    "no", "yes", "auth_self", "auth_admin", "auth_self_keep", "auth_admin_keep"};

// What the file holds now: a document (an empty one when the file is
// missing), or the error number that keeps it from being read.
struct Snapshot {
  FileIdentity identity;
  std::optional<PolkitActionDocument> document;
  int error = 0;
};

Snapshot readSnapshot(const std::string& path) {
  Snapshot snapshot;
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat st {};
  if (fd.get() < 0 && errno == ENOENT) {
    snapshot.document = parsePolkitActions(emptyPolkitActionFile());
    return snapshot;
  }
  if (fd.get() < 0) {
    snapshot.error = errno;
    return snapshot;
  }
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    snapshot.error = EINVAL;
    return snapshot;
  }
  snapshot.identity = identityOf(st);
  std::string text;
  snapshot.error = readBounded(fd.get(), text, kMaxActionFileBytes);
  if (snapshot.error == 0 && text.size() > kMaxActionFileBytes)
    snapshot.error = EFBIG;
  if (snapshot.error == 0) {
    snapshot.document = parsePolkitActions(std::move(text));
    if (!snapshot.document)
      snapshot.error = EINVAL;
  }
  return snapshot;
}

int syncFolder(const std::string& folder) {
  UniqueFd folderFd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folderFd.get() < 0)
    return errno;
  return ::fsync(folderFd.get()) != 0 ? errno : 0;
}

PolkitDefaults allThree(std::string_view word) {
  return {std::string(word), std::string(word), std::string(word)};
}

plist::Value ruleOf(const PolkitDefaults& defaults) {
  if (defaults == allThree("yes"))
    return plist::Value::string(std::string(kAllow));
  for (bool shared : {true, false}) {
    if (defaults == allThree(shared ? "auth_admin_keep" : "auth_admin")) {
      return plist::Value::dictionary({{"class", plist::Value::string("user")},
                                       {"group", plist::Value::string("admin")},
                                       {"shared", plist::Value::boolean(shared)},
                                       {"allow-root", plist::Value::boolean(true)}});
    }
  }
  return plist::Value::dictionary({{"allow_any", plist::Value::string(defaults.allowAny)},
                                   {"allow_inactive", plist::Value::string(defaults.allowInactive)},
                                   {"allow_active", plist::Value::string(defaults.allowActive)}});
}

std::optional<std::string> polkitWord(const plist::Value& value) {
  const std::string* word = value.asString();
  if (word == nullptr)
    return std::nullopt;
  for (std::string_view known : kPolkitWords) {
    if (*word == known)
      return *word;
  }
  return std::nullopt;
}

// The defaults that express `rule`; none for a rule polkit cannot express.
std::optional<PolkitDefaults> defaultsOf(const plist::Value& rule) {
  if (const std::string* name = rule.asString())
    return *name == kAllow ? std::optional(allThree("yes")) : std::nullopt;
  if (rule.get("class") == plist::Value::string("user")) {
    const bool shared = rule.get("shared").asBoolean().value_or(false);
    return allThree(shared ? "auth_admin_keep" : "auth_admin");
  }
  std::optional<std::string> any = polkitWord(rule.get("allow_any"));
  std::optional<std::string> inactive = polkitWord(rule.get("allow_inactive"));
  std::optional<std::string> active = polkitWord(rule.get("allow_active"));
  if (!any || !inactive || !active)
    return std::nullopt;
  return PolkitDefaults{*any, *inactive, *active};
}

const PolkitAction* findAction(const PolkitActionDocument& document, std::string_view right) {
  for (const PolkitAction& action : document.actions) {
    if (action.id == right)
      return &action;
  }
  return nullptr;
}

// `document` without any action of `right`; none if the result does not parse.
std::optional<PolkitActionDocument> withoutRight(PolkitActionDocument document,
                                                 std::string_view right) {
  while (const PolkitAction* old = findAction(document, right)) {
    std::optional<PolkitActionDocument> without =
        parsePolkitActions(withoutPolkitAction(document, *old));
    if (!without)
      return std::nullopt;
    document = std::move(*without);
  }
  return document;
}

class PolkitPolicyFile final : public PolicyDatabase {
 public:
  explicit PolkitPolicyFile(std::string root)
      : root_(std::move(root)),
        folder_(underRoot(root_, kFolder)),
        path_(underRoot(root_, kFile)) {}

  plist::Value rule(std::string_view right) override {
    const Snapshot& snapshot = current();
    if (!snapshot.document)
      return {};
    const PolkitAction* action = findAction(*snapshot.document, right);
    return action == nullptr ? plist::Value() : ruleOf(action->defaults);
  }

  int setRight(std::string_view right, const plist::Value& rule) override {
    std::optional<PolkitDefaults> defaults = defaultsOf(rule);
    if (!defaults || right.empty())
      return EINVAL;
    Snapshot snapshot = readSnapshot(path_);
    if (!snapshot.document)
      return snapshot.error;
    std::optional<PolkitActionDocument> document =
        withoutRight(std::move(*snapshot.document), right);
    if (!document)
      return EINVAL;
    return write(withPolkitAction(*document, renderPolkitAction(right, *defaults)));
  }

  int removeRight(std::string_view right) override {
    Snapshot snapshot = readSnapshot(path_);
    if (!snapshot.document)
      return snapshot.error;
    if (findAction(*snapshot.document, right) == nullptr)
      return ENOENT;
    std::optional<PolkitActionDocument> document =
        withoutRight(std::move(*snapshot.document), right);
    if (!document)
      return EINVAL;
    if (document->actions.empty())
      return removeFile();
    return write(document->text);
  }

 private:
  // The file as last read, read again only when its identity changed: a
  // request costs one stat.
  const Snapshot& current() {
    struct stat st {};
    FileIdentity now = ::stat(path_.c_str(), &st) == 0 ? identityOf(st) : FileIdentity{};
    if (!cached_ || cached_->identity != now)
      cached_ = readSnapshot(path_);
    return *cached_;
  }

  int write(const std::string& text) {
    // Only a document that reads back as written is put in place.
    if (!parsePolkitActions(text))
      return EINVAL;
    if (int error = makeFolders(root_, kFolder, kFolderMode); error != 0)
      return error;
    cached_.reset();
    return writeFileAtomically(folder_, path_, text, kFileMode);
  }

  int removeFile() {
    cached_.reset();
    if (::unlink(path_.c_str()) != 0)
      return errno;
    return syncFolder(folder_);
  }

  std::string root_;
  std::string folder_;
  std::string path_;
  std::optional<Snapshot> cached_;
};

}  // namespace

std::unique_ptr<PolicyDatabase> makePolkitPolicyFile(std::string root) {
  return std::make_unique<PolkitPolicyFile>(std::move(root));
}

}  // namespace nightjar::platform::linux_adapter
