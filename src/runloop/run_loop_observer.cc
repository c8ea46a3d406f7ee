// RunLoop::addObserver: before-waiting and exit observers over sd-event post
// and exit sources.
#include "runloop/owned_callback.h"
#include "runloop/run_loop.h"

namespace nightjar::runloop {
namespace {

// One per source; the two sources of an observer share the callback.
struct ObserverBox {
  std::shared_ptr<const RunLoop::ObserverCallback> callback;
  Activity activity;
};

int onActivity(sd_event_source*, void* userdata) {
  const auto* box = static_cast<const ObserverBox*>(userdata);
  (*box->callback)(box->activity);
  return 0;
}

// Destroying the sources disables them first, so the callback is never called
// once the handle is gone.
class LoopObserver final : public ObserverHandle {
 public:
  LoopObserver(std::unique_ptr<Source> beforeWaiting, std::unique_ptr<Source> exit)
      : beforeWaiting_(std::move(beforeWaiting)), exit_(std::move(exit)) {}

 private:
  std::unique_ptr<Source> beforeWaiting_;
  std::unique_ptr<Source> exit_;
};

}  // namespace

std::unique_ptr<ObserverHandle> RunLoop::addObserver(ObserverCallback callback) {
  auto shared = std::make_shared<const ObserverCallback>(std::move(callback));
  // A post source runs once per pass that dispatched anything else, and stays
  // on. At idle priority it waits until every other pending source of the
  // burst has been dispatched.
  sd_event_source* post = internal::addOwningSource(
      std::make_unique<ObserverBox>(ObserverBox{shared, Activity::BeforeWaiting}),
      [&](sd_event_source** s, void* box) {
        return sd_event_add_post(event_, s, onActivity, box);
      });
  if (post == nullptr) {
    return nullptr;
  }
  auto postSource = std::make_unique<Source>(post);
  if (sd_event_source_set_priority(post, SD_EVENT_PRIORITY_IDLE) < 0) {
    return nullptr;
  }
  sd_event_source* exit =
      internal::addOwningSource(std::make_unique<ObserverBox>(ObserverBox{shared, Activity::Exit}),
                                [&](sd_event_source** s, void* box) {
                                  return sd_event_add_exit(event_, s, onActivity, box);
                                });
  if (exit == nullptr) {
    return nullptr;
  }
  return std::make_unique<LoopObserver>(std::move(postSource), std::make_unique<Source>(exit));
}

}  // namespace nightjar::runloop
