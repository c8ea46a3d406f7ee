#include "runloop/run_loop.h"

#include <cerrno>

#include "runloop/owned_callback.h"

namespace nightjar::runloop {
namespace {

// The process-wide slot behind RunLoop::current().
RunLoop* currentLoop = nullptr;

int noWork(sd_event_source*, void*) {
  return 0;
}

int onIo(sd_event_source*, int, std::uint32_t revents, void* userdata) {
  (*static_cast<RunLoop::FdCallback*>(userdata))(revents);
  return 0;
}

}  // namespace

Source::~Source() {
  sd_event_source_disable_unref(source_);
}

std::unique_ptr<RunLoop> RunLoop::create() {
  sd_event* event = nullptr;
  if (sd_event_new(&event) < 0) {
    return nullptr;
  }
  // Post sources (the end of a pass) run only after some other source was
  // dispatched. This one-shot, do-nothing source makes the first pass such a
  // pass, so work queued before run() is seen at once. It floats: the loop
  // frees it.
  if (sd_event_add_defer(event, nullptr, noWork, nullptr) < 0) {
    sd_event_unref(event);
    return nullptr;
  }
  std::unique_ptr<RunLoop> loop(new RunLoop(event));
  if (!loop->addPassSources()) {
    return nullptr;
  }
  loop->watchClockChanges();
  currentLoop = loop.get();
  return loop;
}

RunLoop::~RunLoop() {
  if (currentLoop == this) {
    currentLoop = nullptr;
  }
  beforeWaiting_.reset();
  exit_.reset();
  clockChange_.reset();
  // Sources still held elsewhere keep the sd_event alive until they go.
  sd_event_unref(event_);
}

RunLoop* RunLoop::current() {
  return currentLoop;
}

// sd_event_loop, plus the bound on work between two ends of a pass. sd-event
// dispatches one source per sd_event_run, the highest priority first, and the
// end of a pass waits at idle priority, so readable client sockets (normal
// priority) would postpone it for as long as clients keep sending. Counting
// the callbacks since the last end of a pass and, past the bound, ending the
// pass right here, between two callbacks, caps that wait whatever the
// clients send. The post source still runs when the burst is over; a pass
// with nothing new costs little.
int RunLoop::run() {
  while (sd_event_get_state(event_) != SD_EVENT_FINISHED) {
    const std::uint64_t passes = passes_;
    const int r = sd_event_run(event_, UINT64_MAX);
    if (r < 0) {
      return r;
    }
    int exitCode = 0;
    const bool exiting = sd_event_get_exit_code(event_, &exitCode) != -ENODATA;
    if (r > 0 && passes_ == passes && !exiting && ++dispatchesSincePass_ >= kMaxDispatchesPerPass) {
      endPass(Activity::BeforeWaiting);
    }
  }
  return 0;
}

void RunLoop::stop() {
  sd_event_exit(event_, 0);
}

std::unique_ptr<Source> RunLoop::addFd(int fd, std::uint32_t events, FdCallback callback) {
  sd_event_source* source = internal::addOwningSource(
      std::make_unique<FdCallback>(std::move(callback)), [&](sd_event_source** s, void* box) {
        return sd_event_add_io(event_, s, fd, events, onIo, box);
      });
  if (source == nullptr) {
    return nullptr;
  }
  return std::make_unique<Source>(source);
}

TimerFactory RunLoop::timerFactory() {
  return [this](std::function<void()> callback) { return addTimer(std::move(callback)); };
}

}  // namespace nightjar::runloop
