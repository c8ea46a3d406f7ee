// An idle time that grows with a fake clock from the user's last input, which
// the test sets by hand. A refresh stays outstanding until the test answers
// it; until then the source keeps what it learnt at the last answer.
#pragma once

#include <algorithm>
#include <utility>

#include "platform/idle_time_source.h"
#include "runloop/clock.h"

namespace nightjar::fakes {

class FakeIdleTimeSource final : public platform::IdleTimeSource {
 public:
  // The user touched the machine now, and the source knows it.
  explicit FakeIdleTimeSource(const runloop::Clock& clock)
      : clock_(clock), lastInput_(clock.now()), known_(lastInput_) {}

  double idleTime() override { return std::max(clock_.now() - known_, 0.0); }
  bool refresh() override { return outstanding_ = true; }
  void setListener(Listener listener) override { listener_ = std::move(listener); }

  // Answers the outstanding refresh with the last input as it is now, and
  // tells the listener; false when none was outstanding.
  bool answer() {
    if (!std::exchange(outstanding_, false))
      return false;
    known_ = lastInput_;
    if (listener_)
      listener_();
    return true;
  }
  void touch() { lastInput_ = clock_.now(); }
  void lastInputAt(runloop::AbsoluteTime date) { lastInput_ = date; }
  bool outstanding() const { return outstanding_; }
  bool listening() const { return static_cast<bool>(listener_); }

 private:
  const runloop::Clock& clock_;
  runloop::AbsoluteTime lastInput_, known_;
  bool outstanding_ = false;
  Listener listener_;
};

}  // namespace nightjar::fakes
