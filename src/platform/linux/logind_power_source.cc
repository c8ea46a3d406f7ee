#include "platform/linux/logind_power_source.h"

#include "platform/linux/logind_bus.h"

namespace nightjar::platform::linux_adapter {
namespace {

constexpr logind::InhibitRequest kSleepDelay = {
    .what = "sleep", .why = "Announcing sleep to scheduled events", .mode = "delay"};

// The delay lock is logind's way to wait for us: the system sleeps once every
// delay lock is released, so releasing it after the sleep handler is the
// acknowledgement. After each wake the lock is taken again for the next sleep,
// and so it is each time logind (or the bus) comes back.
class LogindPowerSource final : public PowerSource, SystemBusConnection::Client {
 public:
  explicit LogindPowerSource(SystemBusConnection& bus) : connection_(bus) {
    connection_.watch(*this, logind::kService);
  }
  ~LogindPowerSource() override {
    connection_.unwatch(*this);
    down();
  }

  // A failed subscription only means that no sleep is announced until logind
  // comes back; a refused lock only that sleep is not held back for the
  // handler. The lock is asked for again after each wake.
  void up(sd_bus* bus) override {
    bus_ = sd_bus_ref(bus);
    sd_bus_slot* slot = nullptr;
    if (sd_bus_match_signal(bus_, &slot, logind::kService, logind::kManagerPath,
                            logind::kManagerInterface, "PrepareForSleep", onPrepareForSleep,
                            this) >= 0) {
      match_.reset(slot);
    }
    retakeDelay();
  }

  void down() override {
    match_.reset();
    pending_.reset();
    delay_.release();
    bus_ = sd_bus_unref(bus_);
  }

  void setHandlers(Handlers handlers) override { handlers_ = std::move(handlers); }

 private:
  static int onPrepareForSleep(sd_bus_message* message, void* userdata, sd_bus_error*) {
    int start = 0;
    if (!logind::isBroadcast(message) || sd_bus_message_has_signature(message, "b") <= 0 ||
        sd_bus_message_read(message, "b", &start) < 0) {
      return 0;
    }
    auto* self = static_cast<LogindPowerSource*>(userdata);
    if (start) {
      self->willSleep();
    } else {
      self->didWake();
    }
    return 0;
  }

  void willSleep() {
    if (handlers_.willSleep)
      handlers_.willSleep();
    pending_.reset();
    delay_.release();
  }

  void didWake() {
    retakeDelay();
    if (handlers_.didWake)
      handlers_.didWake();
  }

  void retakeDelay() {
    if (bus_ == nullptr || delay_.held() || pending_ != nullptr)
      return;
    pending_ = logind::inhibitLater(bus_, kSleepDelay, [this](logind::InhibitorLock lock) {
      pending_.reset();
      delay_ = std::move(lock);
    });
  }

  SystemBusConnection& connection_;
  sd_bus* bus_ = nullptr;
  logind::InhibitorLock delay_;
  SlotPtr match_;
  SlotPtr pending_;
  Handlers handlers_;
};

}  // namespace

std::unique_ptr<PowerSource> makeLogindPowerSource(SystemBusConnection* bus) {
  if (bus == nullptr)
    return nullptr;
  return std::make_unique<LogindPowerSource>(*bus);
}

}  // namespace nightjar::platform::linux_adapter
