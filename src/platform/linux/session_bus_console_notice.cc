#include "platform/linux/session_bus_console_notice.h"

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "platform/linux/daemon_root.h"

namespace nightjar::platform::linux_adapter {
namespace {

constexpr char kService[] = "org.freedesktop.Notifications";
constexpr char kPath[] = "/org/freedesktop/Notifications";
constexpr char kInterface[] = "org.freedesktop.Notifications";
constexpr char kAppName[] = "nightjard";
// A notice lasts seconds; an answer later than this is of no use.
constexpr std::uint64_t kCallTimeoutUsec = 5'000'000;

struct BusCloseUnref {
  // Closing never waits for the peer: the user's bus may not be reading.
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
using UserBusPtr = std::unique_ptr<sd_bus, BusCloseUnref>;

struct SlotUnrefNow {
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using CallSlot = std::unique_ptr<sd_bus_slot, SlotUnrefNow>;

// A D-Bus address for a socket path: bytes other than the address's own
// "optionally escaped" set become %xx.
std::string addressOf(const std::string& socketPath) {
  std::string address = "unix:path=";
  for (const unsigned char c : socketPath) {
    const bool plain = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                       c == '-' || c == '_' || c == '/' || c == '.' || c == '\\' || c == '*';
    if (plain) {
      address += static_cast<char>(c);
    } else {
      char escaped[4];
      std::snprintf(escaped, sizeof escaped, "%%%02x", c);
      address += escaped;
    }
  }
  return address;
}

// While alive, the effective uid is `uid` when the process runs as root.
// The kernel records a socket's peer credentials at connect(), so the user's
// bus sees the user; going back to root cannot fail for a process whose saved
// uid is root, and going on without root would be worse than stopping.
class EffectiveUid {
 public:
  explicit EffectiveUid(uid_t uid) : switched_(geteuid() == 0 && uid != 0) {
    ok_ = !switched_ || seteuid(uid) == 0;
  }
  ~EffectiveUid() {
    if (switched_ && ok_ && seteuid(0) != 0)
      std::abort();
  }
  EffectiveUid(const EffectiveUid&) = delete;
  EffectiveUid& operator=(const EffectiveUid&) = delete;
  bool ok() const { return ok_; }

 private:
  bool switched_;
  bool ok_ = false;
};

// Connects without waiting: a local connect() completes at once, and the
// authentication and Hello run later on the loop. Null when no bus listens.
UserBusPtr connectAs(uid_t uid, const std::string& socketPath, sd_event* event) {
  sd_bus* raw = nullptr;
  if (sd_bus_new(&raw) < 0)
    return nullptr;
  UserBusPtr bus(raw);
  if (sd_bus_set_address(raw, addressOf(socketPath).c_str()) < 0 ||
      sd_bus_set_bus_client(raw, 1) < 0) {
    return nullptr;
  }
  {
    EffectiveUid user(uid);
    if (!user.ok() || sd_bus_start(raw) < 0)
      return nullptr;
  }
  if (sd_bus_attach_event(raw, event, SD_EVENT_PRIORITY_NORMAL) < 0)
    return nullptr;
  return bus;
}

// One notice per connection: a new show() drops the previous connection, so
// nothing of a user who has left lingers beyond the next notice.
class SessionBusConsoleNotice final : public ConsoleNotice {
 public:
  SessionBusConsoleNotice(sd_event* event, std::string root, ConsoleUid consoleUid)
      : event_(sd_event_ref(event)), root_(std::move(root)), consoleUid_(std::move(consoleUid)) {}
  ~SessionBusConsoleNotice() override {
    drop();
    sd_event_unref(event_);
  }

  bool show(const std::string& header, const std::string& message, double seconds) override {
    drop();
    const std::optional<uid_t> uid = consoleUid_ ? consoleUid_() : std::nullopt;
    if (!uid)
      return false;
    const std::string socketPath = underRoot(root_, "/run/user/" + std::to_string(*uid) + "/bus");
    bus_ = connectAs(*uid, socketPath, event_);
    if (bus_ == nullptr)
      return false;
    if (!sendNotify(header, message, seconds)) {
      drop();
      return false;
    }
    return true;
  }

  void close() override {
    if (bus_ == nullptr)
      return;
    if (id_)
      sendClose();
    else
      closeWanted_ = pending_ != nullptr;  // closed once the server names it
  }

 private:
  // One "OK" button; the server also ends the notice itself after `seconds`,
  // should the close never reach it.
  bool sendNotify(const std::string& header, const std::string& message, double seconds) {
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_method_call(bus_.get(), &raw, kService, kPath, kInterface, "Notify") <
        0) {
      return false;
    }
    std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)> call(raw,
                                                                          sd_bus_message_unref);
    const auto expireMs = static_cast<std::int32_t>(seconds * 1000);
    if (sd_bus_message_append(raw, "susss", kAppName, 0u, "", header.c_str(), message.c_str()) <
            0 ||
        sd_bus_message_append(raw, "as", 2, "ok", "OK") < 0 ||
        sd_bus_message_append(raw, "a{sv}", 0) < 0 ||
        sd_bus_message_append(raw, "i", expireMs) < 0) {
      return false;
    }
    sd_bus_slot* slot = nullptr;
    if (sd_bus_call_async(bus_.get(), &slot, raw, onNotifyReply, this, kCallTimeoutUsec) < 0)
      return false;
    pending_.reset(slot);
    return true;
  }

  static int onNotifyReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    auto* self = static_cast<SessionBusConsoleNotice*>(userdata);
    std::uint32_t id = 0;
    if (!sd_bus_message_is_method_error(reply, nullptr) &&
        sd_bus_message_read(reply, "u", &id) > 0) {
      self->id_ = id;
    }
    if (self->closeWanted_ && self->id_)
      self->sendClose();
    self->closeWanted_ = false;
    self->pending_.reset();
    return 0;
  }

  // No answer is awaited: the message goes out with the loop's next pass.
  void sendClose() {
    sd_bus_call_method_async(bus_.get(), nullptr, kService, kPath, kInterface, "CloseNotification",
                             nullptr, nullptr, "u", *id_);
    id_.reset();
  }

  void drop() {
    pending_.reset();
    bus_.reset();
    id_.reset();
    closeWanted_ = false;
  }

  sd_event* event_;
  std::string root_;
  ConsoleUid consoleUid_;
  UserBusPtr bus_;
  CallSlot pending_;
  std::optional<std::uint32_t> id_;
  bool closeWanted_ = false;
};

}  // namespace

std::unique_ptr<ConsoleNotice> makeSessionBusConsoleNotice(runloop::RunLoop& loop, std::string root,
                                                           ConsoleUid consoleUid) {
  return std::make_unique<SessionBusConsoleNotice>(loop.event(), std::move(root),
                                                   std::move(consoleUid));
}

}  // namespace nightjar::platform::linux_adapter
