#include "platform/linux/polkit_authority.h"

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "platform/linux/system_bus.h"

namespace nightjar::platform::linux_adapter {
namespace {

constexpr char kService[] = "org.freedesktop.PolicyKit1";
constexpr char kPath[] = "/org/freedesktop/PolicyKit1/Authority";
constexpr char kInterface[] = "org.freedesktop.PolicyKit1.Authority";
// No flag: in particular not AllowUserInteraction.
constexpr std::uint32_t kNoFlags = 0;
constexpr double kMaxTimeoutSeconds = 600;

struct MessageUnref {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using MessagePtr = std::unique_ptr<sd_bus_message, MessageUnref>;

// The subject as polkit names a process: ("unix-process", {pid: u,
// start-time: t, uid: i}).
int appendSubject(sd_bus_message* m, const AuthorizationSubject& subject) {
  int r = sd_bus_message_open_container(m, 'r', "sa{sv}");
  if (r >= 0)
    r = sd_bus_message_append(m, "s", "unix-process");
  if (r >= 0)
    r = sd_bus_message_append(m, "a{sv}", 3, "pid", "u", static_cast<std::uint32_t>(subject.pid),
                              "start-time", "t", subject.startTime, "uid", "i",
                              static_cast<std::int32_t>(subject.uid));
  if (r >= 0)
    r = sd_bus_message_close_container(m);
  return r;
}

// CheckAuthorization(subject, action id, no details, flags 0, no cancellation id).
MessagePtr newCheckCall(sd_bus* bus, const AuthorizationSubject& subject,
                        const std::string& right) {
  sd_bus_message* raw = nullptr;
  if (sd_bus_message_new_method_call(bus, &raw, kService, kPath, kInterface, "CheckAuthorization") <
      0) {
    return nullptr;
  }
  MessagePtr call(raw);
  if (appendSubject(call.get(), subject) < 0 ||
      sd_bus_message_append(call.get(), "sa{ss}us", right.c_str(), 0, kNoFlags, "") < 0) {
    return nullptr;
  }
  return call;
}

bool isNoOwnerError(const sd_bus_error* error) {
  return sd_bus_error_has_names(error, "org.freedesktop.DBus.Error.ServiceUnknown",
                                "org.freedesktop.DBus.Error.NameHasNoOwner");
}

// Reads polkit's (is_authorized, is_challenge, details); a challenge is a
// refusal, since the daemon never lets polkit ask anyone.
AuthorityAnswer answerOf(sd_bus_message* reply) {
  if (sd_bus_message_is_method_error(reply, nullptr)) {
    return isNoOwnerError(sd_bus_message_get_error(reply)) ? AuthorityAnswer::NoAuthority
                                                           : AuthorityAnswer::Refused;
  }
  int authorized = 0;
  int challenge = 0;
  if (sd_bus_message_enter_container(reply, 'r', "bba{ss}") < 0 ||
      sd_bus_message_read(reply, "bb", &authorized, &challenge) < 0) {
    return AuthorityAnswer::Refused;
  }
  return authorized ? AuthorityAnswer::Granted : AuthorityAnswer::Refused;
}

class PolkitAuthority final : public Authority {
 public:
  PolkitAuthority(SystemBusConnection& bus, std::chrono::microseconds timeout)
      : bus_(bus), timeout_(timeout) {}
  ~PolkitAuthority() override {
    pending_.clear();  // cancels the calls; their completions are dropped
  }

  // A check under way when the bus is lost is answered with an error, and
  // refused; while the bus is lost nothing can reach an authority.
  void check(const AuthorizationSubject& subject, const std::string& right,
             Completion done) override {
    sd_bus* bus = bus_.bus();
    if (bus == nullptr)
      return done(AuthorityAnswer::NoAuthority);
    MessagePtr call = newCheckCall(bus, subject, right);
    if (call == nullptr)
      return done(AuthorityAnswer::Refused);
    auto box = std::make_unique<Pending>(Pending{this, nextId_++, std::move(done)});
    sd_bus_slot* slot = nullptr;
    const int r = sd_bus_call_async(bus, &slot, call.get(), onReply, box.get(),
                                    static_cast<std::uint64_t>(timeout_.count()));
    if (r < 0) {
      // The bus is gone: nothing can reach an authority through it.
      return box->done(AuthorityAnswer::NoAuthority);
    }
    sd_bus_slot_set_destroy_callback(slot, deletePending);
    pending_.emplace(box->id, SlotPtr(slot));
    box.release();
  }

 private:
  struct Pending {
    PolkitAuthority* owner;
    std::uint64_t id;
    Completion done;
  };

  // Also called for a time-out, with an error reply made by sd-bus.
  static int onReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    auto* pending = static_cast<Pending*>(userdata);
    Completion done = std::move(pending->done);
    // sd-bus holds the slot until this returns, so `pending` stays valid.
    pending->owner->pending_.erase(pending->id);
    done(answerOf(reply));
    return 0;
  }

  static void deletePending(void* userdata) { delete static_cast<Pending*>(userdata); }

  SystemBusConnection& bus_;
  std::chrono::microseconds timeout_;
  std::uint64_t nextId_ = 1;
  std::map<std::uint64_t, SlotPtr> pending_;
};

}  // namespace

std::chrono::microseconds polkitTimeoutFromEnvironment() {
  const char* text = std::getenv("NIGHTJAR_POLKIT_TIMEOUT");
  if (text == nullptr)
    return kDefaultPolkitTimeout;
  const std::string_view view(text);
  double seconds = 0;
  auto [end, error] = std::from_chars(view.data(), view.data() + view.size(), seconds);
  if (error != std::errc() || end != view.data() + view.size() || !(seconds > 0) ||
      seconds > kMaxTimeoutSeconds) {
    return kDefaultPolkitTimeout;
  }
  return std::chrono::microseconds(static_cast<std::int64_t>(seconds * 1e6) + 1);
}

std::unique_ptr<Authority> makePolkitAuthority(SystemBusConnection* bus,
                                               std::chrono::microseconds timeout) {
  if (bus == nullptr)
    return nullptr;
  return std::make_unique<PolkitAuthority>(*bus, timeout);
}

}  // namespace nightjar::platform::linux_adapter
