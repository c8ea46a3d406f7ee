#include "platform/linux/logind_idle_time_source.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>

#include "platform/linux/logind_bus.h"

namespace nightjar::platform::linux_adapter {
namespace {

// The idle time is read from the run loop, on every timer firing and queue
// change of the inactivity controller: a logind that is slow to answer must
// not hold the daemon up for long.
constexpr std::uint64_t kCallTimeoutUsec = 250'000;

struct MessageUnref {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using MessagePtr = std::unique_ptr<sd_bus_message, MessageUnref>;

// Properties.Get of one Manager property, bounded; the reply, or null on any
// failure or an error reply.
MessagePtr getProperty(sd_bus* bus, const char* name) {
  sd_bus_message* raw = nullptr;
  if (sd_bus_message_new_method_call(bus, &raw, logind::kService, logind::kManagerPath,
                                     "org.freedesktop.DBus.Properties", "Get") < 0) {
    return nullptr;
  }
  MessagePtr call(raw);
  if (sd_bus_message_append(call.get(), "ss", logind::kManagerInterface, name) < 0)
    return nullptr;
  sd_bus_message* reply = nullptr;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  const int r = sd_bus_call(bus, call.get(), kCallTimeoutUsec, &error, &reply);
  sd_bus_error_free(&error);
  if (r < 0)
    return nullptr;
  return MessagePtr(reply);
}

// The variant's value when it holds exactly `type` ("b" or "t").
template <typename T>
std::optional<T> readVariant(sd_bus_message* reply, const char* type) {
  T value{};
  if (reply == nullptr || sd_bus_message_has_signature(reply, "v") <= 0 ||
      sd_bus_message_enter_container(reply, 'v', type) <= 0 ||
      sd_bus_message_read_basic(reply, type[0], &value) <= 0) {
    return std::nullopt;
  }
  return value;
}

class LogindIdleTimeSource final : public IdleTimeSource {
 public:
  LogindIdleTimeSource(SystemBusConnection* bus, const runloop::Clock& clock)
      : connection_(bus), clock_(clock) {}

  std::uint32_t idleSeconds() override {
    sd_bus* bus = connection_ != nullptr ? connection_->bus() : nullptr;
    if (bus == nullptr)
      return 0;
    const std::optional<int> idle = readVariant<int>(getProperty(bus, "IdleHint").get(), "b");
    if (!idle || !*idle)
      return 0;
    const std::optional<std::uint64_t> since =
        readVariant<std::uint64_t>(getProperty(bus, "IdleSinceHint").get(), "t");
    if (!since || *since == 0)
      return 0;  // idle since an unknown moment
    return secondsSince(*since);
  }

 private:
  // Whole seconds from `sinceUsec` to now; 0 for a moment ahead of now (the
  // clock was set back), capped at 32 bits.
  std::uint32_t secondsSince(std::uint64_t sinceUsec) const {
    const double now = runloop::toUnixSeconds(clock_.now());
    const double idle = std::floor(now - static_cast<double>(sinceUsec) / 1e6);
    if (!(idle > 0))
      return 0;
    constexpr double kMax = std::numeric_limits<std::uint32_t>::max();
    return static_cast<std::uint32_t>(idle < kMax ? idle : kMax);
  }

  SystemBusConnection* connection_;
  const runloop::Clock& clock_;
};

}  // namespace

std::unique_ptr<IdleTimeSource> makeLogindIdleTimeSource(SystemBusConnection* bus,
                                                         const runloop::Clock& clock) {
  return std::make_unique<LogindIdleTimeSource>(bus, clock);
}

}  // namespace nightjar::platform::linux_adapter
