#include "platform/linux/logind_sleep_guard.h"

#include "platform/linux/logind_bus.h"

namespace nightjar::platform::linux_adapter {
namespace {

constexpr logind::InhibitRequest kIdleSleepBlock = {
    .what = "idle", .why = "Performing a scheduled event", .mode = "block"};

class LogindSleepGuard final : public SleepGuard {
 public:
  explicit LogindSleepGuard(sd_bus* bus) : bus_(sd_bus_ref(bus)) {}
  ~LogindSleepGuard() override {
    release();
    sd_bus_unref(bus_);
  }

  // Asynchronous, so that a slow logind never stalls the loop while an event
  // is performed; the block starts when logind answers.
  void hold() override {
    if (lock_.held() || pending_ != nullptr)
      return;
    pending_ = logind::inhibitLater(bus_, kIdleSleepBlock, [this](logind::InhibitorLock lock) {
      pending_.reset();
      lock_ = std::move(lock);
    });
  }

  void release() override {
    pending_.reset();
    lock_.release();
  }

 private:
  sd_bus* bus_;
  SlotPtr pending_;
  logind::InhibitorLock lock_;
};

}  // namespace

std::unique_ptr<SleepGuard> makeLogindSleepGuard(sd_bus* bus) {
  if (bus == nullptr || !logind::reachable(bus))
    return nullptr;
  return std::make_unique<LogindSleepGuard>(bus);
}

}  // namespace nightjar::platform::linux_adapter
