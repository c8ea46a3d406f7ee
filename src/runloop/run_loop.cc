#include "runloop/run_loop.h"

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
  // Post sources (the before-waiting observers) run only after some other
  // source was dispatched. This one-shot, do-nothing source makes the first
  // pass such a pass, so work queued before run() is seen at once. It floats:
  // the loop frees it.
  if (sd_event_add_defer(event, nullptr, noWork, nullptr) < 0) {
    sd_event_unref(event);
    return nullptr;
  }
  std::unique_ptr<RunLoop> loop(new RunLoop(event));
  currentLoop = loop.get();
  return loop;
}

RunLoop::~RunLoop() {
  if (currentLoop == this) {
    currentLoop = nullptr;
  }
  // Sources still held elsewhere keep the sd_event alive until they go.
  sd_event_unref(event_);
}

RunLoop* RunLoop::current() {
  return currentLoop;
}

int RunLoop::run() {
  const int r = sd_event_loop(event_);
  return r < 0 ? r : 0;
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
