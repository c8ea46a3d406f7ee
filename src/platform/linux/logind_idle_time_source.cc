#include "platform/linux/logind_idle_time_source.h"

#include <cmath>
#include <cstdint>
#include <optional>
#include <utility>

#include "platform/linux/logind_bus.h"

namespace nightjar::platform::linux_adapter {
namespace {

// A refresh waits this long at most for logind; a late answer reads as 0.
constexpr std::uint64_t kCallTimeoutUsec = 5'000'000;

struct MessageUnref {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using MessagePtr = std::unique_ptr<sd_bus_message, MessageUnref>;

// The variant's value when the reply holds exactly `type` ("b" or "t").
template <typename T>
std::optional<T> readVariant(sd_bus_message* reply, const char* type) {
  T value{};
  if (reply == nullptr || sd_bus_message_is_method_error(reply, nullptr) ||
      sd_bus_message_has_signature(reply, "v") <= 0 ||
      sd_bus_message_enter_container(reply, 'v', type) <= 0 ||
      sd_bus_message_read_basic(reply, type[0], &value) <= 0) {
    return std::nullopt;
  }
  return value;
}

// logind works the idle time of terminal and remote sessions out at each read
// and announces no change of it, so each refresh asks for both properties.
class LogindIdleTimeSource final : public IdleTimeSource {
 public:
  LogindIdleTimeSource(SystemBusConnection* connection, const runloop::Clock& clock)
      : connection_(connection), clock_(clock) {}
  ~LogindIdleTimeSource() override {
    hintCall_.reset();  // unanswered calls are dropped
    sinceCall_.reset();
  }

  double idleTime() override {
    if (!idle_ || sinceUsec_ == 0)
      return 0;  // active, or idle since an unknown moment
    const double idle =
        runloop::toUnixSeconds(clock_.now()) - static_cast<double>(sinceUsec_) / 1e6;
    return idle > 0 ? idle : 0;  // a moment ahead of now: the clock was set back
  }

  bool refresh() override {
    // The bus of the moment: after a reconnection the calls go to the new one.
    sd_bus* bus = connection_ != nullptr ? connection_->bus() : nullptr;
    if (bus == nullptr) {
      idle_ = false;  // an answer from before the loss may no longer hold
      return false;
    }
    if (hintCall_ || sinceCall_)
      return true;  // the answer under way is shared
    hintCall_ = ask(bus, "IdleHint", onHint);
    sinceCall_ = ask(bus, "IdleSinceHint", onSince);
    if (!hintCall_ || !sinceCall_) {
      hintCall_.reset();
      sinceCall_.reset();
      return false;
    }
    return true;
  }

  void setListener(Listener listener) override { listener_ = std::move(listener); }

 private:
  // Properties.Get of one Manager property, answered to `callback`.
  SlotPtr ask(sd_bus* bus, const char* property, sd_bus_message_handler_t callback) {
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_method_call(bus, &raw, logind::kService, logind::kManagerPath,
                                       "org.freedesktop.DBus.Properties", "Get") < 0) {
      return nullptr;
    }
    MessagePtr call(raw);
    sd_bus_slot* slot = nullptr;
    if (sd_bus_message_append(call.get(), "ss", logind::kManagerInterface, property) < 0 ||
        sd_bus_call_async(bus, &slot, call.get(), callback, this, kCallTimeoutUsec) < 0) {
      return nullptr;
    }
    return SlotPtr(slot);
  }

  // sd-bus keeps a slot alive while its callback runs, so it may be dropped
  // there.
  static int onHint(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    auto* self = static_cast<LogindIdleTimeSource*>(userdata);
    self->hint_ = readVariant<int>(reply, "b").value_or(0) != 0;
    self->hintCall_.reset();
    self->answered();
    return 0;
  }
  static int onSince(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    auto* self = static_cast<LogindIdleTimeSource*>(userdata);
    self->since_ = readVariant<std::uint64_t>(reply, "t").value_or(0);
    self->sinceCall_.reset();
    self->answered();
    return 0;
  }

  // Both answers are in: adopt them and tell the listener.
  void answered() {
    if (hintCall_ || sinceCall_)
      return;
    idle_ = hint_;
    sinceUsec_ = since_;
    if (listener_)
      listener_();
  }

  SystemBusConnection* connection_;
  const runloop::Clock& clock_;
  Listener listener_;
  SlotPtr hintCall_;
  SlotPtr sinceCall_;
  bool hint_ = false;  // answers of the refresh under way
  std::uint64_t since_ = 0;
  bool idle_ = false;  // the last complete answer
  std::uint64_t sinceUsec_ = 0;
};

}  // namespace

std::unique_ptr<IdleTimeSource> makeLogindIdleTimeSource(SystemBusConnection* bus,
                                                         const runloop::Clock& clock) {
  return std::make_unique<LogindIdleTimeSource>(bus, clock);
}

}  // namespace nightjar::platform::linux_adapter
