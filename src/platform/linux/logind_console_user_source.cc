#include "platform/linux/logind_console_user_source.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
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
// never waits on logind. A newer change cancels a resolution still under way.
class LogindConsoleUserSource final : public ConsoleUserSource {
 public:
  explicit LogindConsoleUserSource(sd_bus* bus) : bus_(sd_bus_ref(bus)) {}
  ~LogindConsoleUserSource() override {
    match_.reset();
    pending_.reset();
    sd_bus_unref(bus_);
  }

  // Subscribes to the seat and learns the session active now, without
  // reporting it: only changes are reported.
  bool start() {
    sd_bus_slot* slot = nullptr;
    if (sd_bus_add_match(bus_, &slot, kSeatChangedRule, onSeatChanged, this) < 0)
      return false;
    match_.reset(slot);
    askActiveSession(/*report=*/false);
    return true;
  }

  void setChangeHandler(ChangeHandler handler) override { handler_ = std::move(handler); }
  ConsoleSession current() const override { return current_; }

 private:
  static int onSeatChanged(sd_bus_message* signal, void* userdata, sd_bus_error*) {
    auto* self = static_cast<LogindConsoleUserSource*>(userdata);
    if (!logind::isBroadcast(signal))
      return 0;
    std::optional<logind::ActiveSessionChange> change = logind::readActiveSessionChange(signal);
    if (!change)
      return 0;
    if (change->invalidated) {
      self->askActiveSession(/*report=*/true);
    } else {
      self->resolve(change->path, /*report=*/true);
    }
    return 0;
  }

  static int onActiveSessionReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    auto* self = static_cast<LogindConsoleUserSource*>(userdata);
    self->pending_.reset();
    if (std::optional<std::string> path = logind::readActiveSessionReply(reply)) {
      self->resolve(*path, self->pendingReports_);
    }
    return 0;
  }

  static int onSessionReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    auto* self = static_cast<LogindConsoleUserSource*>(userdata);
    self->pending_.reset();
    std::optional<ConsoleSession> session = logind::readSessionReply(reply);
    if (!session)
      return 0;
    if (session->kind == ConsoleSessionKind::User)
      session->gid = primaryGroupOf(session->uid);
    self->learn(std::move(*session), self->pendingReports_);
    return 0;
  }

  void askActiveSession(bool report) {
    call(logind::kFirstSeatPath, "Get", onActiveSessionReply, report, "ss", logind::kSeatInterface,
         "ActiveSession");
  }

  void resolve(const std::string& sessionPath, bool report) {
    if (sessionPath == "/") {
      pending_.reset();
      learn(ConsoleSession{}, report);
      return;
    }
    call(sessionPath.c_str(), "GetAll", onSessionReply, report, "s", logind::kSessionInterface);
  }

  template <typename... Args>
  void call(const char* path, const char* member, sd_bus_message_handler_t onReply, bool report,
            const char* types, Args... args) {
    pending_.reset();
    pendingReports_ = report;
    sd_bus_slot* slot = nullptr;
    if (sd_bus_call_method_async(bus_, &slot, logind::kService, path,
                                 "org.freedesktop.DBus.Properties", member, onReply, this, types,
                                 args...) >= 0) {
      pending_.reset(slot);
    }
  }

  void learn(ConsoleSession session, bool report) {
    current_ = std::move(session);
    if (report && handler_)
      handler_(current_);
  }

  sd_bus* bus_;
  SlotPtr match_;
  SlotPtr pending_;
  bool pendingReports_ = false;
  ConsoleSession current_;
  ChangeHandler handler_;
};

}  // namespace

std::unique_ptr<ConsoleUserSource> makeLogindConsoleUserSource(sd_bus* bus) {
  if (bus == nullptr || !logind::reachable(bus))
    return nullptr;
  auto source = std::make_unique<LogindConsoleUserSource>(bus);
  if (!source->start())
    return nullptr;
  return source;
}

}  // namespace nightjar::platform::linux_adapter
