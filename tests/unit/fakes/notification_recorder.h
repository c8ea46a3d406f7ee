// Records what is posted on the local center for one object.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "plist/describe.h"
#include "runloop/notification_center.h"

namespace nightjar::testing {

struct Post {
  std::string name;
  plist::Value userInfo;
  const void* object = nullptr;
  // Equal by name and user information: a recorder hears one object only.
  bool operator==(const Post& o) const { return name == o.name && userInfo == o.userInfo; }
};

inline void PrintTo(const Post& post, std::ostream* out) {
  *out << post.name << " " << plist::describeValue(post.userInfo);
}

class NotificationRecorder {
 public:
  explicit NotificationRecorder(const void* object) {
    runloop::localCenter().addObserver(
        this,
        [this](std::string_view name, const void* from, const plist::Value& info) {
          posts.push_back({std::string(name), info, from});
        },
        std::nullopt, object);
  }
  ~NotificationRecorder() { runloop::localCenter().removeObserver(this); }
  NotificationRecorder(const NotificationRecorder&) = delete;
  NotificationRecorder& operator=(const NotificationRecorder&) = delete;

  std::vector<std::string> names() const {
    std::vector<std::string> out;
    for (const Post& post : posts)
      out.push_back(post.name);
    return out;
  }

  std::vector<Post> posts;
};

}  // namespace nightjar::testing
