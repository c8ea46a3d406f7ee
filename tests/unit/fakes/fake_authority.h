// An Authority that records each check and answers only when the test says.
#pragma once

#include <string>
#include <vector>

#include "platform/authority.h"

namespace nightjar::testing {

class FakeAuthority final : public platform::Authority {
 public:
  struct Check {
    platform::AuthorizationSubject subject;
    std::string right;
    Completion done;
  };

  void check(const platform::AuthorizationSubject& subject, const std::string& right,
             Completion done) override {
    checks.push_back({subject, right, std::move(done)});
  }
  // Answers the oldest check still waiting; answers whether there was one.
  bool answer(platform::AuthorityAnswer answer) {
    if (answered >= checks.size())
      return false;
    std::move(checks[answered++].done)(answer);
    return true;
  }
  std::size_t waiting() const { return checks.size() - answered; }

  std::vector<Check> checks;
  std::size_t answered = 0;
};

}  // namespace nightjar::testing
