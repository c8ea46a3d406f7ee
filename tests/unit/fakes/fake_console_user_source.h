// A ConsoleUserSource that the test drives by hand.
#pragma once

#include <optional>
#include <string>

#include "platform/console_user_source.h"

namespace nightjar::testing {

class FakeConsoleUserSource final : public platform::ConsoleUserSource {
 public:
  void setChangeHandler(ChangeHandler next) override { handler = std::move(next); }
  platform::ConsoleSession current() const override { return session; }
  // Makes `next` the active session and reports it, as the platform would.
  void report(platform::ConsoleSession next) {
    session = std::move(next);
    if (handler)
      handler(session);
  }

  ChangeHandler handler;
  platform::ConsoleSession session;
};

inline platform::ConsoleSession userSession(std::string name, uid_t uid, std::optional<gid_t> gid) {
  return {
      .kind = platform::ConsoleSessionKind::User, .name = std::move(name), .uid = uid, .gid = gid};
}

inline platform::ConsoleSession greeterSession() {
  platform::ConsoleSession session;
  session.kind = platform::ConsoleSessionKind::Greeter;
  return session;
}

}  // namespace nightjar::testing
