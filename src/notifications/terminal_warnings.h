// TerminalWarnings: tells every logged-in terminal of a coming shutdown,
// restart or logout, once when its warning is issued and again a minute
// before the action. It follows the controller's pending list: a delayed event
// is announced anew with its next warning, a cancelled or removed one is not
// announced again. Sleep and wake end nobody's work and are not announced.
// Run-loop thread only.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "notifications/notification_controller.h"
#include "platform/terminal_broadcast.h"
#include "plist/value.h"
#include "runloop/clock.h"
#include "runloop/timer.h"

namespace nightjar::notifications {

// How long before the action the second message is written.
inline constexpr double kFinalTerminalWarningLead = 60;

// The text written to the terminals, at `now`, for `event` (as the pending
// list holds it) to be performed at `triggerDate`; nullopt for an action that
// is not announced. Dates are shown in the process's time zone.
std::optional<std::string> terminalWarningText(const plist::Value& event,
                                               plist::AbsoluteTime triggerDate,
                                               plist::AbsoluteTime now);

class TerminalWarnings {
 public:
  // Observes `controller` on the local center until destroyed. Answers
  // nullptr when there is no controller, no terminals or no timer.
  static std::unique_ptr<TerminalWarnings> create(
      const NotificationController* controller,
      std::unique_ptr<platform::TerminalBroadcast> terminals, const runloop::Clock& clock,
      const runloop::TimerFactory& timers);
  ~TerminalWarnings();
  TerminalWarnings(const TerminalWarnings&) = delete;
  TerminalWarnings& operator=(const TerminalWarnings&) = delete;

 private:
  // A warned event whose second message is still to come or already written.
  struct Announced {
    plist::Value event;
    plist::AbsoluteTime triggerDate = 0;
    bool finalWritten = false;
  };

  TerminalWarnings(const NotificationController* controller,
                   std::unique_ptr<platform::TerminalBroadcast> terminals,
                   const runloop::Clock& clock);
  void warningIssued(const plist::Value& event);
  void pendingChanged(const plist::Value& view);
  void timerFired();
  void armTimer();

  const NotificationController* controller_;
  std::unique_ptr<platform::TerminalBroadcast> terminals_;
  const runloop::Clock& clock_;
  std::unique_ptr<runloop::Timer> timer_;
  std::map<std::string, Announced> announced_;  // by "uniqueid"
  bool pendingStale_ = false;                   // the list changed since it was last read
};

}  // namespace nightjar::notifications
