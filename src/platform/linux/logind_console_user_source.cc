#include "platform/linux/logind_console_user_source.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/logind_bus.h"
#include "platform/linux/logind_properties.h"

namespace nightjar::platform::linux_adapter {
namespace {

constexpr char kSeatChangedRule[] =
    "type='signal',sender='org.freedesktop.login1',"
    "path='/org/freedesktop/login1/seat/seat0',"
    "interface='org.freedesktop.DBus.Properties',member='PropertiesChanged',"
    "arg0='org.freedesktop.login1.Seat'";

// A generous bound for one passwd entry; the buffer grows to it on ERANGE.
constexpr std::size_t kMaxPasswdBuffer = 1 << 20;

std::optional<gid_t> primaryGroupOf(uid_t uid) {
  std::vector<char> buffer(16384);
  for (;;) {
    passwd entry{};
    passwd* found = nullptr;
    const int r = getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
    if (r == ERANGE && buffer.size() < kMaxPasswdBuffer) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (r != 0 || found == nullptr)
      return std::nullopt;
    return entry.pw_gid;
  }
}

// Each change of the seat's active session is resolved in two steps (which
// session, then its class, name and user), both asynchronous so that the loop
// never waits on logind. Lookups run side by side and are reported in the
// order of their changes, so that changes in quick succession are each
// reported: a lookup that logind answers early waits for those before it.
class LogindConsoleUserSource final : public ConsoleUserSource, SystemBusConnection::Client {
 public:
  explicit LogindConsoleUserSource(SystemBusConnection& bus) : connection_(bus) {
    connection_.watch(*this, logind::kService);
  }
  ~LogindConsoleUserSource() override {
    connection_.unwatch(*this);
    down();
  }

  // Subscribes to the seat and learns the session active now. The first time
  // it is not reported: only changes are. When logind comes back it is
  // reported if it changed meanwhile.
  void up(sd_bus* bus) override {
    bus_ = sd_bus_ref(bus);
    sd_bus_slot* slot = nullptr;
    if (sd_bus_add_match(bus_, &slot, kSeatChangedRule, onSeatChanged, this) >= 0)
      match_.reset(slot);
    askActiveSession(startLookup(started_ ? Report::IfChanged : Report::Never));
    started_ = true;
  }

  // The session last learnt stays until logind says otherwise.
  void down() override {
    match_.reset();
    lookups_.clear();
    bus_ = sd_bus_unref(bus_);
  }

  void setChangeHandler(ChangeHandler handler) override { handler_ = std::move(handler); }
  ConsoleSession current() const override { return current_; }

 private:
  enum class Report { Never, Always, IfChanged };

  // One change being resolved. Finished once `answer` is set.
  struct Lookup {
    LogindConsoleUserSource* source = nullptr;
    Report report = Report::Never;
    SlotPtr call;
    std::optional<ConsoleSession> answer;
  };

  // Far more than logind ever has outstanding; only a flood reaches it.
  static constexpr std::size_t kMaxLookups = 64;

  static int onSeatChanged(sd_bus_message* signal, void* userdata, sd_bus_error*) {
    auto* self = static_cast<LogindConsoleUserSource*>(userdata);
    if (!logind::isBroadcast(signal) || self->lookups_.size() >= kMaxLookups)
      return 0;
    std::optional<logind::ActiveSessionChange> change = logind::readActiveSessionChange(signal);
    if (!change)
      return 0;
    Lookup* lookup = self->startLookup(Report::Always);
    if (change->invalidated) {
      self->askActiveSession(lookup);
    } else {
      self->resolve(lookup, change->path);
    }
    return 0;
  }

  static int onActiveSessionReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    auto* lookup = static_cast<Lookup*>(userdata);
    lookup->call.reset();
    if (std::optional<std::string> path = logind::readActiveSessionReply(reply)) {
      lookup->source->resolve(lookup, *path);
    } else {
      lookup->source->finish(lookup, ConsoleSession{});
    }
    return 0;
  }

  // A session that cannot be looked up (most often one that ended meanwhile,
  // like a login screen that gave way to a user) is nobody we can name.
  static int onSessionReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    auto* lookup = static_cast<Lookup*>(userdata);
    lookup->call.reset();
    std::optional<ConsoleSession> session = logind::readSessionReply(reply);
    if (session && session->kind == ConsoleSessionKind::User)
      session->gid = primaryGroupOf(session->uid);
    lookup->source->finish(lookup, session.value_or(ConsoleSession{}));
    return 0;
  }

  Lookup* startLookup(Report report) {
    auto lookup = std::make_unique<Lookup>();
    lookup->source = this;
    lookup->report = report;
    lookups_.push_back(std::move(lookup));
    return lookups_.back().get();
  }

  void askActiveSession(Lookup* lookup) {
    call(lookup, logind::kFirstSeatPath, "Get", onActiveSessionReply, "ss", logind::kSeatInterface,
         "ActiveSession");
  }

  void resolve(Lookup* lookup, const std::string& sessionPath) {
    if (sessionPath == "/") {
      finish(lookup, ConsoleSession{});
      return;
    }
    call(lookup, sessionPath.c_str(), "GetAll", onSessionReply, "s", logind::kSessionInterface);
  }

  template <typename... Args>
  void call(Lookup* lookup, const char* path, const char* member, sd_bus_message_handler_t onReply,
            const char* types, Args... args) {
    sd_bus_slot* slot = nullptr;
    if (sd_bus_call_method_async(bus_, &slot, logind::kService, path,
                                 "org.freedesktop.DBus.Properties", member, onReply, lookup, types,
                                 args...) < 0) {
      finish(lookup, ConsoleSession{});
      return;
    }
    lookup->call.reset(slot);
  }

  // Records the answer, then reports every finished lookup at the front, in
  // order. `lookup` may be gone when this returns.
  void finish(Lookup* lookup, ConsoleSession answer) {
    lookup->answer = std::move(answer);
    while (!lookups_.empty() && lookups_.front()->answer) {
      std::unique_ptr<Lookup> done = std::move(lookups_.front());
      lookups_.pop_front();
      learn(std::move(*done->answer), done->report);
    }
  }

  void learn(ConsoleSession session, Report report) {
    const bool changed = session.kind != current_.kind || session.uid != current_.uid ||
                         session.name != current_.name;
    current_ = std::move(session);
    if (handler_ && (report == Report::Always || (report == Report::IfChanged && changed)))
      handler_(current_);
  }

  SystemBusConnection& connection_;
  sd_bus* bus_ = nullptr;
  bool started_ = false;
  SlotPtr match_;
  std::deque<std::unique_ptr<Lookup>> lookups_;
  ConsoleSession current_;
  ChangeHandler handler_;
};

}  // namespace

std::unique_ptr<ConsoleUserSource> makeLogindConsoleUserSource(SystemBusConnection* bus) {
  if (bus == nullptr)
    return nullptr;
  return std::make_unique<LogindConsoleUserSource>(*bus);
}

}  // namespace nightjar::platform::linux_adapter
