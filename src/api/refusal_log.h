// A bound on the log lines of refused requests, per uid, so that no local user
// can push the daemon's own lines out of the journal's rate limit: about 50 a
// second each; the rest are counted in one line a second per uid, logged with
// the first refused line of any uid after that second.
// Run-loop thread only.
#pragma once

#include <sys/types.h>

#include <optional>

namespace nightjar::api {

inline constexpr int kRefusalLinesPerSecond = 50;

// Whether one more refused-request line of `uid` may be logged now; always
// for root. When not,
// it is counted, and "Suppressed N refused-request lines from uid U" is logged
// with the next refused line after its second.
bool refusalLineAdmitted(uid_t uid);

// The uid whose request is being answered, for lines logged where the request
// no longer knows it; set for the time of a scope. Without one, every line is
// admitted.
class RequesterScope {
 public:
  explicit RequesterScope(uid_t uid);
  ~RequesterScope();
  RequesterScope(const RequesterScope&) = delete;
  RequesterScope& operator=(const RequesterScope&) = delete;
  static std::optional<uid_t> current();

 private:
  std::optional<uid_t> outer_;
};

}  // namespace nightjar::api
