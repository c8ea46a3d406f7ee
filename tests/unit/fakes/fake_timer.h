// A timer that records how it was armed and fires only when the test calls
// fire(), plus a factory that keeps track of the timers it handed out.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "runloop/clock.h"
#include "runloop/timer.h"

namespace nightjar::fakes {

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
    if (onDestroy_) {
      onDestroy_();
    }
  }

  void setNextFireDate(runloop::AbsoluteTime date) override {
    date_ = date;
    parked_ = false;
    armed_ = true;
    ++setCount_;
  }
  void park() override {
    date_ = clock_.now() + runloop::kParkInterval;
    parked_ = true;
    armed_ = true;
  }
  runloop::AbsoluteTime nextFireDate() const override { return date_; }

  // Parked (last armed by park()) rather than set to a date.
  bool parked() const { return parked_; }
  // Armed and not yet fired since: a real timer would still fire.
  bool armed() const { return armed_; }
  // Armed with a date (not parked) that `now` has reached.
  bool due(runloop::AbsoluteTime now) const { return armed_ && !parked_ && date_ <= now; }
  // How often setNextFireDate was called.
  int setCount() const { return setCount_; }

  // Fires as the run loop would: disarms (one shot), then calls the callback,
  // which may re-arm the timer.
  void fire() {
    armed_ = false;
    callback_();
  }

 private:
  const runloop::Clock& clock_;
  std::function<void()> callback_;
  std::function<void()> onDestroy_;
  runloop::AbsoluteTime date_ = 0;
  bool parked_ = true;
  bool armed_ = true;
  int setCount_ = 0;
};

// Hands out FakeTimers through timerFactory() and remembers each one, so that a
// test can reach the timer a module made. The TimerFactory it answers must not
// be called once this object is gone; the timers themselves may outlive it.
class FakeTimerFactory {
 public:
  explicit FakeTimerFactory(const runloop::Clock& clock)
      : clock_(clock), timers_(std::make_shared<std::vector<FakeTimer*>>()) {}

  runloop::TimerFactory timerFactory() {
    return [this](std::function<void()> callback) -> std::unique_ptr<runloop::Timer> {
      if (failing_) {
        return nullptr;
      }
      const std::size_t index = timers_->size();
      std::weak_ptr<std::vector<FakeTimer*>> registry = timers_;
      auto timer = std::make_unique<FakeTimer>(clock_, std::move(callback), [registry, index] {
        if (auto timers = registry.lock()) {
          (*timers)[index] = nullptr;
        }
      });
      timers_->push_back(timer.get());
      return timer;
    };
  }

  // While set, the factory answers nullptr, as a run loop that cannot add a
  // source does.
  void setFailing(bool failing) { failing_ = failing; }

  // Timers handed out so far, destroyed ones included.
  std::size_t created() const { return timers_->size(); }
  // The index-th timer handed out, or nullptr once it was destroyed.
  FakeTimer* timer(std::size_t index) const {
    return index < timers_->size() ? (*timers_)[index] : nullptr;
  }
  // The timer handed out last, or nullptr.
  FakeTimer* last() const { return timers_->empty() ? nullptr : timers_->back(); }

 private:
  const runloop::Clock& clock_;
  std::shared_ptr<std::vector<FakeTimer*>> timers_;
  bool failing_ = false;
};

}  // namespace nightjar::fakes
