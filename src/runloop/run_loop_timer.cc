// RunLoop::addTimer: the wall-clock timer over an sd-event CLOCK_REALTIME source.
#include "runloop/owned_callback.h"
#include "runloop/run_loop.h"

namespace nightjar::runloop {
namespace {

// Timers may fire up to this late, so the kernel can batch wake-ups.
constexpr std::uint64_t kAccuracyMicroseconds = 1000;

int onTime(sd_event_source*, std::uint64_t, void* userdata) {
  (*static_cast<std::function<void()>*>(userdata))();
  return 0;
}

class EventTimer final : public Timer {
 public:
  explicit EventTimer(sd_event_source* source) : source_(source) {}

  void setNextFireDate(AbsoluteTime date) override {
    date_ = date;
    // Both calls fail only once the loop has finished, when no timer fires
    // any more anyway.
    sd_event_source_set_time(source_.get(), toUnixMicroseconds(date));
    // One shot: after firing the source is off until the next date is set.
    sd_event_source_set_enabled(source_.get(), SD_EVENT_ONESHOT);
  }

  void park() override { setNextFireDate(systemClock().now() + kParkInterval); }

  AbsoluteTime nextFireDate() const override { return date_; }

 private:
  Source source_;
  AbsoluteTime date_ = 0;
};

}  // namespace

std::unique_ptr<Timer> RunLoop::addTimer(std::function<void()> callback) {
  const AbsoluteTime parked = systemClock().now() + kParkInterval;
  sd_event_source* source = internal::addOwningSource(
      std::make_unique<std::function<void()>>(std::move(callback)),
      [&](sd_event_source** s, void* box) {
        return sd_event_add_time(event_, s, CLOCK_REALTIME, toUnixMicroseconds(parked),
                                 kAccuracyMicroseconds, onTime, box);
      });
  if (source == nullptr) {
    return nullptr;
  }
  auto timer = std::make_unique<EventTimer>(source);
  timer->setNextFireDate(parked);
  return timer;
}

}  // namespace nightjar::runloop
