#include "platform/linux/logind_system_sleep.h"

#include <cerrno>
#include <list>
#include <utility>

#include "platform/linux/logind_bus.h"

namespace nightjar::platform::linux_adapter {
namespace {

// The answer of a refused or failed call as a positive error number; a bus
// error that names no errno counts as EIO.
int errorOf(sd_bus_message* reply) {
  if (!sd_bus_message_is_method_error(reply, nullptr))
    return 0;
  const int error = sd_bus_message_get_errno(reply);
  return error > 0 ? error : EIO;
}

// The call is asynchronous because logind, before it answers, announces the
// sleep (PrepareForSleep) and waits for its delay locks, one of which this
// daemon holds and can release only while its loop runs.
class LogindSystemSleep final : public SystemSleep {
 public:
  explicit LogindSystemSleep(SystemBusConnection& bus) : bus_(bus) {}
  ~LogindSystemSleep() override {
    calls_.clear();  // unanswered calls are dropped with their completions
  }

  void sleepNow(Completion completion) override {
    calls_.emplace_back();
    Call& call = calls_.back();
    call.owner = this;
    call.completion = std::move(completion);
    call.self = std::prev(calls_.end());
    sd_bus_slot* slot = nullptr;
    // A call under way when the bus is lost is answered with an error.
    sd_bus* bus = bus_.bus();
    const int r = bus == nullptr
                      ? -ENOTCONN
                      : sd_bus_call_method_async(bus, &slot, logind::kService, logind::kManagerPath,
                                                 logind::kManagerInterface, "Suspend", onReply,
                                                 &call, "b", /*interactive=*/0);
    if (r < 0) {
      Completion failed = std::move(call.completion);
      calls_.pop_back();
      if (failed)
        failed(-r);
      return;
    }
    call.slot.reset(slot);
  }

 private:
  struct Call {
    LogindSystemSleep* owner = nullptr;
    Completion completion;
    SlotPtr slot;
    std::list<Call>::iterator self;
  };

  // sd-bus keeps the slot alive while its callback runs, so the call may be
  // erased here.
  static int onReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    auto* call = static_cast<Call*>(userdata);
    Completion completion = std::move(call->completion);
    const int error = errorOf(reply);
    call->owner->calls_.erase(call->self);
    if (completion)
      completion(error);
    return 0;
  }

  SystemBusConnection& bus_;
  std::list<Call> calls_;
};

}  // namespace

std::unique_ptr<SystemSleep> makeLogindSystemSleep(SystemBusConnection* bus) {
  if (bus == nullptr)
    return nullptr;
  return std::make_unique<LogindSystemSleep>(*bus);
}

}  // namespace nightjar::platform::linux_adapter
