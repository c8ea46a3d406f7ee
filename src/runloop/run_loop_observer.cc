// The end of a pass: observers by stage, run from one post source (before the
// loop sleeps), from run() once a pass has gone on too long, and from one exit
// source.
#include <algorithm>
#include <vector>

#include "runloop/run_loop.h"

namespace nightjar::runloop {

struct PassObserver {
  PassStage stage;
  RunLoop::ObserverCallback callback;
  bool removed = false;
};

// Kept sorted by stage; within a stage, in the order added.
struct PassObservers {
  std::vector<std::shared_ptr<PassObserver>> list;
};

namespace {

// Removing marks the observer first, so that an end of pass already under way
// skips it even when it holds a copy of the list.
class PassObserverHandle final : public ObserverHandle {
 public:
  PassObserverHandle(std::weak_ptr<PassObservers> observers, std::shared_ptr<PassObserver> observer)
      : observers_(std::move(observers)), observer_(std::move(observer)) {}
  ~PassObserverHandle() override {
    observer_->removed = true;
    if (const std::shared_ptr<PassObservers> observers = observers_.lock()) {
      std::erase(observers->list, observer_);
    }
  }

 private:
  std::weak_ptr<PassObservers> observers_;
  std::shared_ptr<PassObserver> observer_;
};

}  // namespace

RunLoop::RunLoop(sd_event* event) : event_(event), observers_(std::make_shared<PassObservers>()) {}

bool RunLoop::addPassSources() {
  // A post source runs once per pass that dispatched anything else, and stays
  // on. At idle priority it waits until every other pending source of the
  // burst has been dispatched.
  sd_event_source* post = nullptr;
  if (sd_event_add_post(event_, &post, &RunLoop::onBeforeWaiting, this) < 0) {
    return false;
  }
  beforeWaiting_ = std::make_unique<Source>(post);
  sd_event_source* exit = nullptr;
  if (sd_event_source_set_priority(post, SD_EVENT_PRIORITY_IDLE) < 0 ||
      sd_event_add_exit(event_, &exit, &RunLoop::onExit, this) < 0) {
    return false;
  }
  exit_ = std::make_unique<Source>(exit);
  return true;
}

int RunLoop::onBeforeWaiting(sd_event_source*, void* userdata) {
  static_cast<RunLoop*>(userdata)->endPass(Activity::BeforeWaiting);
  return 0;
}

int RunLoop::onExit(sd_event_source*, void* userdata) {
  static_cast<RunLoop*>(userdata)->endPass(Activity::Exit);
  return 0;
}

void RunLoop::endPass(Activity activity) {
  ++passes_;
  dispatchesSincePass_ = 0;
  // A copy: an observer may add or remove observers, its own included.
  const std::vector<std::shared_ptr<PassObserver>> observers = observers_->list;
  for (const std::shared_ptr<PassObserver>& observer : observers) {
    if (!observer->removed) {
      observer->callback(activity);
    }
  }
}

std::unique_ptr<ObserverHandle> RunLoop::addObserver(PassStage stage, ObserverCallback callback) {
  auto observer = std::make_shared<PassObserver>(PassObserver{stage, std::move(callback)});
  auto& list = observers_->list;
  const auto after = std::upper_bound(
      list.begin(), list.end(), stage,
      [](PassStage value, const std::shared_ptr<PassObserver>& o) { return value < o->stage; });
  list.insert(after, observer);
  return std::make_unique<PassObserverHandle>(observers_, std::move(observer));
}

}  // namespace nightjar::runloop
