// The system's authorization authority: decides whether a process holds a
// named right, without ever asking a user.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

namespace nightjar::platform {

// A process as the authority names it. The start time (in clock ticks since
// boot) tells a process from a later one that reuses its pid.
struct AuthorizationSubject {
  pid_t pid = 0;
  uid_t uid = static_cast<uid_t>(-1);
  std::uint64_t startTime = 0;
};

enum class AuthorityAnswer {
  Granted,
  Refused,      // also when the authority failed or did not answer in time
  NoAuthority,  // no authority runs on the system: the caller decides itself
};

class Authority {
 public:
  virtual ~Authority() = default;
  Authority() = default;
  Authority(const Authority&) = delete;
  Authority& operator=(const Authority&) = delete;

  using Completion = std::function<void(AuthorityAnswer)>;
  // Asks whether `subject` holds `right`, never interactively and never
  // blocking: `done` is called exactly once, from the run loop (or before
  // check() returns when the question cannot even be asked). An authority that
  // does not answer within its time-out refuses. Destroying the authority drops
  // the checks still under way without calling their completions.
  // Run-loop thread only.
  virtual void check(const AuthorizationSubject& subject, const std::string& right,
                     Completion done) = 0;
};

}  // namespace nightjar::platform
