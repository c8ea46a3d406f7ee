// The daemon's one run loop, over sd-event: fd sources, wall-clock timers,
// before-sleep and exit observers. Run-loop thread only.
#pragma once

#include <systemd/sd-event.h>

#include <cstdint>
#include <functional>
#include <memory>

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

// Keeps an observer registered; destroying it removes the observer.
class ObserverHandle {
 public:
  virtual ~ObserverHandle() = default;
};

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

  using ObserverCallback = std::function<void(Activity)>;
  // Calls `callback` once a burst of work is done, before the loop would sleep
  // (BeforeWaiting), and when the loop exits (Exit). The first pass counts, so
  // work queued before run() is seen. Answers nullptr on failure.
  std::unique_ptr<ObserverHandle> addObserver(ObserverCallback callback);

  sd_event* event() const { return event_; }

 private:
  explicit RunLoop(sd_event* event) : event_(event) {}
  sd_event* event_;
};

}  // namespace nightjar::runloop
