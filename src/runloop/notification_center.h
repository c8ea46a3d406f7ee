// The process-local, synchronous notification center: the daemon's internal bus.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plist/value.h"

namespace nightjar::runloop {

class NotificationCenter {
 public:
  using Callback =
      std::function<void(std::string_view name, const void* object, const plist::Value& userInfo)>;

  NotificationCenter() = default;
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  // Registers `callback` for notifications named `name` (nullopt: every name)
  // whose object is `object` (nullptr: every object). Objects are compared by
  // identity. `observer` is only the key for removeObserver.
  void addObserver(const void* observer, Callback callback, std::optional<std::string> name,
                   const void* object);
  // Removes every observation registered by `observer`.
  void removeObserver(const void* observer);
  // Calls every matching observer, in the order they were added, before it
  // returns. Observers may add or remove observations while a post runs: one
  // removed during the post is not called afterwards; one added is not called
  // by this post.
  void post(std::string_view name, const void* object, const plist::Value& userInfo = {});

  std::size_t observationCount() const;

 private:
  struct Observation {
    std::uint64_t id;
    const void* observer;
    // Shared so that a post can keep the callback alive, in place, while it
    // runs: appends during the call may move the entries.
    std::shared_ptr<const Callback> callback;
    std::optional<std::string> name;
    const void* object;
    bool removed = false;
  };
  std::vector<Observation> observations_;
  std::uint64_t nextId_ = 1;
  int postDepth_ = 0;
  void compact();
};

// The daemon's one local center. Lives for the whole process.
NotificationCenter& localCenter();

}  // namespace nightjar::runloop
