#include "api/refusal_log.h"

#include <syslog.h>

#include <cmath>
#include <map>

#include "logging/logging.h"
#include "runloop/clock.h"

namespace nightjar::api {
namespace {

struct Window {
  double second = 0;  // whole seconds of the clock
  int logged = 0;
  int suppressed = 0;
};

struct Budget {
  std::map<uid_t, Window> windows;
  double flushed = 0;  // the second of the last flush
};

Budget& budget() {
  static Budget instance;
  return instance;
}

std::optional<uid_t>& requester() {
  static std::optional<uid_t> uid;
  return uid;
}

void report(uid_t uid, Window& window) {
  if (window.suppressed > 0) {
    logging::logMessage(LOG_NOTICE, "Suppressed %d refused-request lines from uid %u",
                        window.suppressed, static_cast<unsigned>(uid));
  }
  window.suppressed = 0;
}

// Reports every window whose second is over, and forgets it; at most once a
// second.
void flushBefore(double now) {
  Budget& self = budget();
  if (self.flushed == now)
    return;
  self.flushed = now;
  for (auto it = self.windows.begin(); it != self.windows.end();) {
    if (it->second.second < now) {
      report(it->first, it->second);
      it = self.windows.erase(it);
    } else {
      ++it;
    }
  }
}

}  // namespace

bool refusalLineAdmitted(uid_t uid) {
  if (uid == 0)
    return true;  // root can stop the daemon anyway; its lines are all kept
  const double now = std::floor(runloop::systemClock().now());
  flushBefore(now);
  Window& window = budget().windows[uid];
  if (window.second != now) {
    report(uid, window);
    window = Window{now, 0, 0};
  }
  if (window.logged < kRefusalLinesPerSecond) {
    ++window.logged;
    return true;
  }
  ++window.suppressed;
  return false;
}

RequesterScope::RequesterScope(uid_t uid) : outer_(requester()) {
  requester() = uid;
}

RequesterScope::~RequesterScope() {
  requester() = outer_;
}

std::optional<uid_t> RequesterScope::current() {
  return requester();
}

}  // namespace nightjar::api
