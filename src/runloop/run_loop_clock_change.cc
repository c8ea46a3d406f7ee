// RunLoop's watch on steps of the wall clock: a CLOCK_REALTIME timerfd armed
// for a date that never comes, cancelled by the kernel whenever the clock is
// set (TFD_TIMER_CANCEL_ON_SET).
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <limits>

#include "runloop/notification_center.h"
#include "runloop/run_loop.h"

namespace nightjar::runloop {
namespace {

// Below the timers' priority and above the end of a pass: the timers a
// forward step made due fire first, at their dates as they stand, and the
// reaction to the step is written out by the end of the same pass.
constexpr std::int64_t kClockChangePriority = SD_EVENT_PRIORITY_NORMAL + 50;

int armCancelOnSet(int fd) {
  itimerspec never{};
  never.it_value.tv_sec = std::numeric_limits<time_t>::max();
  return timerfd_settime(fd, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &never, nullptr);
}

// Answers true when the clock was set since the descriptor was armed; the
// descriptor is then armed again, so that the next step is seen too.
bool clockWasSet(int fd) {
  std::uint64_t expirations = 0;
  if (read(fd, &expirations, sizeof expirations) >= 0 || errno != ECANCELED)
    return false;
  armCancelOnSet(fd);
  return true;
}

int onClockChange(sd_event_source*, int fd, std::uint32_t, void* userdata) {
  if (clockWasSet(fd))
    localCenter().post(kClockChangedNotification, userdata);
  return 0;
}

}  // namespace

bool RunLoop::watchClockChanges() {
  const int fd = timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC);
  if (fd < 0)
    return false;
  sd_event_source* source = nullptr;
  if (armCancelOnSet(fd) < 0 ||
      sd_event_add_io(event_, &source, fd, EPOLLIN, onClockChange, this) < 0) {
    close(fd);
    return false;
  }
  // The source owns the descriptor from here on.
  sd_event_source_set_io_fd_own(source, 1);
  sd_event_source_set_priority(source, kClockChangePriority);
  clockChange_ = std::make_unique<Source>(source);
  return true;
}

}  // namespace nightjar::runloop
