#include "polkit_check.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <optional>

#include "wire/authorization_form.h"

namespace nightjar::agent {
namespace {

constexpr std::uint32_t kAllowUserInteraction = 1;
// Long enough for a person to type a password; polkit itself gives up later.
constexpr std::uint64_t kAnswerTimeoutUsec = 300'000'000;

using Done = std::function<void(bool)>;

int onAnswer(sd_bus_message* reply, void* userdata, sd_bus_error*) {
  int authorized = 0;
  int challenge = 0;
  if (sd_bus_message_is_method_error(reply, nullptr) ||
      sd_bus_message_enter_container(reply, 'r', "bba{ss}") < 0 ||
      sd_bus_message_read(reply, "bb", &authorized, &challenge) < 0)
    authorized = 0;
  (*static_cast<Done*>(userdata))(authorized != 0);
  return 0;
}

void release(void* userdata) {
  delete static_cast<Done*>(userdata);
}

int appendQuestion(sd_bus_message* call, const std::string& right, std::uint64_t started) {
  return sd_bus_message_append(call, "(sa{sv})sa{ss}us", "unix-process", 3, "pid", "u",
                               static_cast<std::uint32_t>(::getpid()), "start-time", "t", started,
                               "uid", "i", static_cast<std::int32_t>(::getuid()), right.c_str(), 0,
                               kAllowUserInteraction, "");
}

}  // namespace

void checkRight(sd_bus* systemBus, const std::string& right, Done done) {
  const std::optional<std::uint64_t> started = api::processStartTime("/proc", ::getpid());
  sd_bus_message* call = nullptr;
  sd_bus_slot* slot = nullptr;
  int r = systemBus != nullptr && started ? 0 : -ENOTCONN;
  if (r >= 0)
    r = sd_bus_message_new_method_call(
        systemBus, &call, "org.freedesktop.PolicyKit1", "/org/freedesktop/PolicyKit1/Authority",
        "org.freedesktop.PolicyKit1.Authority", "CheckAuthorization");
  if (r >= 0)
    r = appendQuestion(call, right, *started);
  auto pending = std::make_unique<Done>(std::move(done));
  if (r >= 0)
    r = sd_bus_call_async(systemBus, &slot, call, onAnswer, pending.get(), kAnswerTimeoutUsec);
  sd_bus_message_unref(call);
  if (r < 0) {
    (*pending)(false);
    return;
  }
  // The bus owns the call from here; the answer's handler is released with
  // it, whether an answer came or the bus was closed first.
  sd_bus_slot_set_destroy_callback(slot, release);
  sd_bus_slot_set_floating(slot, 1);
  sd_bus_slot_unref(slot);
  pending.release();
}

}  // namespace nightjar::agent
