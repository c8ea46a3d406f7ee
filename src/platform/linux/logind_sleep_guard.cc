#include "platform/linux/logind_sleep_guard.h"

#include "platform/linux/logind_bus.h"

namespace nightjar::platform::linux_adapter {
namespace {

constexpr logind::InhibitRequest kIdleSleepBlock = {
    .what = "idle", .why = "Performing a scheduled event", .mode = "block"};

// While logind is away nothing is held; the block is asked for again when it
// returns while still wanted.
class LogindSleepGuard final : public SleepGuard, SystemBusConnection::Client {
 public:
  explicit LogindSleepGuard(SystemBusConnection& bus) : connection_(bus) {
    connection_.watch(*this, logind::kService);
  }
  ~LogindSleepGuard() override {
    connection_.unwatch(*this);
    down();
  }

  // Asynchronous, so that a slow logind never stalls the loop while an event
  // is performed; the block starts when logind answers.
  void hold() override {
    wanted_ = true;
    if (bus_ == nullptr || lock_.held() || pending_ != nullptr)
      return;
    pending_ = logind::inhibitLater(bus_, kIdleSleepBlock, [this](logind::InhibitorLock lock) {
      pending_.reset();
      lock_ = std::move(lock);
    });
  }

  void release() override {
    wanted_ = false;
    pending_.reset();
    lock_.release();
  }

  void up(sd_bus* bus) override {
    bus_ = sd_bus_ref(bus);
    if (wanted_)
      hold();
  }

  void down() override {
    pending_.reset();
    lock_.release();
    bus_ = sd_bus_unref(bus_);
  }

 private:
  SystemBusConnection& connection_;
  sd_bus* bus_ = nullptr;
  bool wanted_ = false;
  SlotPtr pending_;
  logind::InhibitorLock lock_;
};

}  // namespace

std::unique_ptr<SleepGuard> makeLogindSleepGuard(SystemBusConnection* bus) {
  if (bus == nullptr)
    return nullptr;
  return std::make_unique<LogindSleepGuard>(*bus);
}

}  // namespace nightjar::platform::linux_adapter
