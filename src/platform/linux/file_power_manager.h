// The PowerManager over a file and the RTC, under the daemon's root:
//   "<root>/var/lib/nightjar/powerevents.plist"  the entry list, an XML array of
//                                                 { "eventtype", "time", "scheduledby" }
//   "<root>/sys/class/rtc/rtc0/wakealarm"         the hardware wake alarm
// The list lives in memory. Once per run-loop pass in which it changed, and
// at exit, past entries are dropped, the file is replaced atomically and the
// alarm is set to the earliest future entry, then read back. Times are kept
// to the whole second, as the file and the RTC hold them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/power_manager.h"
#include "runloop/clock.h"
#include "runloop/run_loop.h"

namespace nightjar::platform::linux_adapter {

class FilePowerManager : public PowerManager {
 public:
  // Writes the list and sets the alarm now, if either is due; the run loop
  // does this by itself before it sleeps.
  virtual void flush() = 0;
  // Sets the alarm again at the next flush, even when the list did not
  // change: an alarm that fired is spent. Call it after each wake.
  virtual void rearm() = 0;
  // How often the entry file has been written, for tests and benchmarks.
  virtual std::uint64_t fileWrites() const = 0;
};

// Reads the list once, from the file ("<root>" is "/" or $NIGHTJAR_ROOT); a
// missing file is an empty list, a bad one (unreadable, corrupt or larger
// than storedFileLimit()) reads as empty, is logged and kept beside as
// "powerevents.plist.unreadable-<UTC date>". An entry that would make the file
// larger than that limit is not listed (logged once). With a `loop`, flushes
// at the end of each pass (its first stage), when a flushed alarm date has
// passed (so the next entry takes over), hourly while the RTC refuses the
// date, and at exit; the first pass sets the alarm. Also flushes when
// destroyed. `clock` must outlive it.
std::unique_ptr<FilePowerManager> makeFilePowerManager(
    const std::string& root, runloop::RunLoop* loop,
    const runloop::Clock& clock = runloop::systemClock());

}  // namespace nightjar::platform::linux_adapter
