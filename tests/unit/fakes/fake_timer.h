// Time under the test's control: a clock that moves only when the test moves it,
// timers that record how they were armed and fire only when the test calls fire(),
// and a factory that keeps track of the timers it handed out.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "runloop/clock.h"
#include "runloop/timer.h"

namespace nightjar::fakes {

// A wall clock that moves only when the test moves it.
class FakeClock final : public runloop::Clock {
 public:
  explicit FakeClock(runloop::AbsoluteTime start = 0) : now_(start) {}

  runloop::AbsoluteTime now() const override { return now_; }
  void set(runloop::AbsoluteTime now) { now_ = now; }
  void advance(double seconds) { now_ += seconds; }

 private:
  runloop::AbsoluteTime now_;
};

class FakeTimer final : public runloop::Timer {
 public:
  // `clock` gives park() its "now"; `onDestroy` (may be empty) is told when the
  // timer goes away.
  FakeTimer(const runloop::Clock& clock, std::function<void()> callback,
            std::function<void()> onDestroy = {})
      : clock_(clock), callback_(std::move(callback)), onDestroy_(std::move(onDestroy)) {
    park();
  }
  ~FakeTimer() override {
    if (onDestroy_)
      onDestroy_();
  }

  void setNextFireDate(runloop::AbsoluteTime date) override {
    arm(date, /*parked=*/false);
    ++setCount_;
  }
  void park() override { arm(clock_.now() + runloop::kParkInterval, /*parked=*/true); }
  runloop::AbsoluteTime nextFireDate() const override { return date_; }

  bool parked() const { return parked_; }  // last armed by park()
  bool armed() const { return armed_; }    // not fired since: a real timer would still fire
  bool due(runloop::AbsoluteTime now) const { return armed_ && !parked_ && date_ <= now; }
  int setCount() const { return setCount_; }
  // Fires as the run loop would: disarms (one shot), then calls the callback,
  // which may re-arm the timer.
  void fire() {
    armed_ = false;
    callback_();
  }

 private:
  void arm(runloop::AbsoluteTime date, bool parked) {
    date_ = date;
    parked_ = parked;
    armed_ = true;
  }

  const runloop::Clock& clock_;
  std::function<void()> callback_, onDestroy_;
  runloop::AbsoluteTime date_ = 0;
  bool parked_ = true, armed_ = true;
  int setCount_ = 0;
};

// Hands out FakeTimers and remembers each one (nullptr once destroyed). The
// TimerFactory must not be called once this object is gone; the timers may
// outlive it.
class FakeTimerFactory {
 public:
  explicit FakeTimerFactory(const runloop::Clock& clock) : clock_(clock) {}

  runloop::TimerFactory timerFactory() {
    return [this](std::function<void()> callback) -> std::unique_ptr<runloop::Timer> {
      if (failing_)
        return nullptr;  // as a run loop that cannot add a source
      std::weak_ptr<std::vector<FakeTimer*>> registry = timers_;
      auto timer = std::make_unique<FakeTimer>(clock_, std::move(callback),
                                               [registry, index = timers_->size()] {
                                                 if (auto timers = registry.lock())
                                                   (*timers)[index] = nullptr;
                                               });
      timers_->push_back(timer.get());
      return timer;
    };
  }
  void setFailing(bool failing) { failing_ = failing; }
  std::size_t created() const { return timers_->size(); }
  FakeTimer* timer(std::size_t index) const {
    return index < timers_->size() ? (*timers_)[index] : nullptr;
  }
  FakeTimer* last() const { return timers_->empty() ? nullptr : timers_->back(); }

 private:
  const runloop::Clock& clock_;
  std::shared_ptr<std::vector<FakeTimer*>> timers_ = std::make_shared<std::vector<FakeTimer*>>();
  bool failing_ = false;
};

}  // namespace nightjar::fakes
