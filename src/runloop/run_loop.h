// The daemon's one run loop, over sd-event: fd sources, wall-clock timers,
// and the end of a pass (before the loop sleeps, and at exit). Run-loop
// thread only.
#pragma once

#include <systemd/sd-event.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "runloop/clock.h"
#include "runloop/timer.h"

namespace nightjar::runloop {

// Owns one sd-event source; destroying it removes the source from the loop.
class Source {
 public:
  explicit Source(sd_event_source* source) : source_(source) {}
  ~Source();
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;
  sd_event_source* get() const { return source_; }

 private:
  sd_event_source* source_;
};

enum class Activity { BeforeWaiting, Exit };

// Posted on the local center, with the run loop as object, each time the wall
// clock is set (stepped), after the timers the step made due have fired and
// before the end of that pass. Dates computed from the earlier clock (the next
// occurrence of a daily time, an inactivity deadline, the wake alarm) are
// then to be computed again.
inline constexpr std::string_view kClockChangedNotification = "runloop.clockchanged";

// The steps of the end of a pass, in the order in which they run, whatever the
// order in which their observers were added. Everything a change causes
// outside memory happens before the reply that acknowledges it leaves: the
// wake entries and the RTC, then the saved state, then the held replies (also
// after a failed save: the change is in effect in memory), and last the
// broadcasts to other processes.
enum class PassStage { WakeEntries, SaveState, ReleaseReplies, Broadcast };

// Keeps an observer registered; destroying it removes the observer.
class ObserverHandle {
 public:
  virtual ~ObserverHandle() = default;
};

struct PassObservers;

class RunLoop {
 public:
  // Answers nullptr when sd-event cannot be set up. Becomes the current run
  // loop (see current()) until destroyed.
  static std::unique_ptr<RunLoop> create();
  ~RunLoop();
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;

  // The run loop created last and not yet destroyed, or nullptr.
  static RunLoop* current();

  // Runs until stop(). Answers 0, or a negative errno when the loop failed.
  // The end of a pass runs once a burst of work is done, and also after at
  // most kMaxDispatchesPerPass callbacks in a row, so that no stream of
  // input, however steady, can postpone it.
  int run();
  // Ends run() once the current callback returns; exit observers run then.
  void stop();

  using FdCallback = std::function<void(std::uint32_t revents)>;
  // Watches `fd` for epoll `events` (EPOLLIN, ...). The fd stays the caller's.
  // Answers nullptr on failure.
  std::unique_ptr<Source> addFd(int fd, std::uint32_t events, FdCallback callback);

  // A one-shot CLOCK_REALTIME timer, parked 100 years ahead until set.
  // Answers nullptr on failure.
  std::unique_ptr<Timer> addTimer(std::function<void()> callback);
  // addTimer as a TimerFactory; the run loop must outlive the factory's use.
  TimerFactory timerFactory();

  // How many callbacks may run in a row before the end of a pass runs
  // between them.
  static constexpr unsigned kMaxDispatchesPerPass = 32;

  using ObserverCallback = std::function<void(Activity)>;
  // Calls `callback` at the end of every pass, in its `stage`: once a burst of
  // work is done, before the loop would sleep, or after kMaxDispatchesPerPass
  // callbacks (BeforeWaiting), and when the loop exits (Exit). The first pass
  // counts, so work queued before run() is seen. Observers of one stage run
  // in the order added. Never answers nullptr.
  std::unique_ptr<ObserverHandle> addObserver(PassStage stage, ObserverCallback callback);

  sd_event* event() const { return event_; }

 private:
  explicit RunLoop(sd_event* event);
  // Adds the sources that end a pass: a post source and an exit source.
  bool addPassSources();
  // Adds the source that posts kClockChangedNotification. Without it (false)
  // the timers still fire at their dates; only the reaction to a step is lost.
  bool watchClockChanges();
  // Runs every observer, stage by stage.
  void endPass(Activity activity);
  static int onBeforeWaiting(sd_event_source* source, void* userdata);
  static int onExit(sd_event_source* source, void* userdata);

  sd_event* event_;
  std::shared_ptr<PassObservers> observers_;
  std::unique_ptr<Source> beforeWaiting_;
  std::unique_ptr<Source> exit_;
  std::unique_ptr<Source> clockChange_;
  unsigned dispatchesSincePass_ = 0;
  std::uint64_t passes_ = 0;
};

}  // namespace nightjar::runloop
