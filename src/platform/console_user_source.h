// Who sits at the console: the active session of the machine's first seat.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

namespace nightjar::platform {

enum class ConsoleSessionKind {
  None,     // no session is active on the seat
  Greeter,  // the login screen, or any other session that is not a user's
  User,     // a user is logged in at the console
};

// One report of the seat's active session. `name`, `uid` and `gid` are set only
// for ConsoleSessionKind::User; `gid` is absent when the user's group cannot be
// found.
struct ConsoleSession {
  ConsoleSessionKind kind = ConsoleSessionKind::None;
  std::string name;
  uid_t uid = 0;
  std::optional<gid_t> gid;
};

class ConsoleUserSource {
 public:
  virtual ~ConsoleUserSource() = default;
  ConsoleUserSource() = default;
  ConsoleUserSource(const ConsoleUserSource&) = delete;
  ConsoleUserSource& operator=(const ConsoleUserSource&) = delete;

  using ChangeHandler = std::function<void(const ConsoleSession& session)>;
  // Calls `handler` from the run loop once per change of the active session,
  // also when the same session is reported again. Replaces any earlier handler.
  // Run-loop thread only.
  virtual void setChangeHandler(ChangeHandler handler) = 0;

  // The active session as last learnt; never blocks. Run-loop thread only.
  virtual ConsoleSession current() const = 0;
};

}  // namespace nightjar::platform
