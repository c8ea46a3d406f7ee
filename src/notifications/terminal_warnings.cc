#include "notifications/terminal_warnings.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

#include "model/event.h"
#include "model/validation.h"
#include "runloop/notification_center.h"

namespace nightjar::notifications {
namespace {

std::optional<plist::AbsoluteTime> triggerDateOf(const plist::Value& event) {
  return event.get(kTriggerDateKey).asDate();
}

}  // namespace

std::unique_ptr<TerminalWarnings> TerminalWarnings::create(
    const NotificationController* controller,
    std::unique_ptr<platform::TerminalBroadcast> terminals, const runloop::Clock& clock,
    const runloop::TimerFactory& timers) {
  if (controller == nullptr || terminals == nullptr)
    return nullptr;
  std::unique_ptr<TerminalWarnings> warnings(
      new TerminalWarnings(controller, std::move(terminals), clock));
  TerminalWarnings* self = warnings.get();
  warnings->timer_ = timers([self] { self->timerFired(); });
  if (warnings->timer_ == nullptr)
    return nullptr;
  warnings->timer_->park();
  runloop::NotificationCenter& center = runloop::localCenter();
  center.addObserver(
      self,
      [self](std::string_view, const void*, const plist::Value& info) {
        self->warningIssued(info.get(model::kParameterKey));
      },
      std::string(kNotifyNotification), controller);
  center.addObserver(
      self,
      [self](std::string_view, const void*, const plist::Value&) {
        self->pendingStale_ = true;  // read once the burst of changes is over
        self->timer_->setNextFireDate(self->clock_.now());
      },
      std::string(kPendingNotification), controller);
  return warnings;
}

TerminalWarnings::TerminalWarnings(const NotificationController* controller,
                                   std::unique_ptr<platform::TerminalBroadcast> terminals,
                                   const runloop::Clock& clock)
    : controller_(controller), terminals_(std::move(terminals)), clock_(clock) {}

TerminalWarnings::~TerminalWarnings() {
  runloop::localCenter().removeObserver(this);
}

void TerminalWarnings::warningIssued(const plist::Value& event) {
  const std::optional<plist::AbsoluteTime> triggerDate = triggerDateOf(event);
  if (!triggerDate)
    return;
  if (std::optional<std::string> text = terminalWarningText(event, *triggerDate, clock_.now()))
    terminals_->broadcast(*text);
}

// The warned events of the list are the announced ones; the list is announced
// right after each warning, and after a restart it brings back the events
// warned before. An event that left the list, or came back with another date
// (delayed) or unwarned (to be warned again), loses its second message.
void TerminalWarnings::pendingChanged(const plist::Value& view) {
  std::map<std::string, Announced> announced;
  const plist::Array* events = view.asArray();
  const plist::AbsoluteTime now = clock_.now();
  for (const plist::Value& event : events != nullptr ? *events : plist::Array{}) {
    const std::string* id = model::eventUniqueID(event).asString();
    const std::optional<plist::AbsoluteTime> triggerDate = triggerDateOf(event);
    if (id == nullptr || !triggerDate || !event.get(kNotifiedKey) ||
        !terminalWarningText(event, *triggerDate, now))
      continue;
    Announced entry{event, *triggerDate, *triggerDate - kFinalTerminalWarningLead <= now};
    if (auto known = announced_.find(*id);
        known != announced_.end() && known->second.triggerDate == *triggerDate)
      entry.finalWritten = known->second.finalWritten;
    announced.emplace(*id, std::move(entry));
  }
  announced_ = std::move(announced);
  armTimer();
}

void TerminalWarnings::timerFired() {
  // The list is read here rather than at each change, so that replacing or
  // resyncing many events reads it once, not once per event.
  if (pendingStale_) {
    pendingStale_ = false;
    pendingChanged(notificationControllerCopyPendingView(controller_));
  }
  const plist::AbsoluteTime now = clock_.now();
  for (auto& [id, entry] : announced_) {
    if (entry.finalWritten || entry.triggerDate - kFinalTerminalWarningLead > now)
      continue;
    entry.finalWritten = true;
    if (std::optional<std::string> text = terminalWarningText(entry.event, entry.triggerDate, now))
      terminals_->broadcast(*text);
  }
  armTimer();
}

void TerminalWarnings::armTimer() {
  std::optional<plist::AbsoluteTime> next;
  for (const auto& [id, entry] : announced_) {
    if (!entry.finalWritten)
      next = std::min(next.value_or(entry.triggerDate), entry.triggerDate);
  }
  if (next)
    timer_->setNextFireDate(*next - kFinalTerminalWarningLead);
  else
    timer_->park();
}

}  // namespace nightjar::notifications
