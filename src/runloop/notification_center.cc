#include "runloop/notification_center.h"

#include <algorithm>

namespace nightjar::runloop {

void NotificationCenter::addObserver(const void* observer, Callback callback,
                                     std::optional<std::string> name, const void* object) {
  observations_.push_back(Observation{nextId_++, observer,
                                      std::make_shared<const Callback>(std::move(callback)),
                                      std::move(name), object});
}

void NotificationCenter::removeObserver(const void* observer) {
  for (Observation& o : observations_) {
    if (o.observer == observer) {
      o.removed = true;
    }
  }
  // A running post walks the list by index; entries leave it only once no
  // post runs.
  if (postDepth_ == 0) {
    compact();
  }
}

void NotificationCenter::post(std::string_view name, const void* object,
                              const plist::Value& userInfo) {
  // Observations added from here on carry an id at or above this one.
  const std::uint64_t firstUnseen = nextId_;
  ++postDepth_;
  // By index, and re-reading the size: callbacks may append, which can move
  // the entries.
  for (std::size_t i = 0; i < observations_.size(); ++i) {
    const Observation& o = observations_[i];
    if (o.removed || o.id >= firstUnseen) {
      continue;
    }
    if ((o.name && *o.name != name) || (o.object != nullptr && o.object != object)) {
      continue;
    }
    const std::shared_ptr<const Callback> callback = o.callback;
    (*callback)(name, object, userInfo);
  }
  if (--postDepth_ == 0) {
    compact();
  }
}

std::size_t NotificationCenter::observationCount() const {
  return static_cast<std::size_t>(std::count_if(observations_.begin(), observations_.end(),
                                                [](const Observation& o) { return !o.removed; }));
}

void NotificationCenter::compact() {
  std::erase_if(observations_, [](const Observation& o) { return o.removed; });
}

NotificationCenter& localCenter() {
  static NotificationCenter center;
  return center;
}

}  // namespace nightjar::runloop
