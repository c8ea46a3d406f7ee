// The system's database of authorization rights: which rights are defined,
// and the rule of each.
#pragma once

#include <string_view>

#include "plist/value.h"

namespace nightjar::platform {

// A rule is either the name of a predefined rule, "allow" (anyone holds the
// right), or a rule dictionary such as { "class" = "user", "group" = "admin",
// "shared" = true, "allow-root" = true } (an administrator who authenticated;
// once is enough for a while; root without asking). A database may answer a
// rule of its own form for a definition that matches neither; such a rule is
// defined but is not "allow".
class PolicyDatabase {
 public:
  virtual ~PolicyDatabase() = default;
  PolicyDatabase() = default;
  PolicyDatabase(const PolicyDatabase&) = delete;
  PolicyDatabase& operator=(const PolicyDatabase&) = delete;

  // The rule of `right`; none when the right is not defined or the database
  // cannot be read. Cheap when nothing changed: it is asked on every request.
  virtual plist::Value rule(std::string_view right) = 0;
  // Defines `right` with `rule`, replacing any definition. Answers 0, or an
  // error number (EINVAL for a rule the database cannot express, or for a
  // database it cannot read back); on failure nothing changed.
  virtual int setRight(std::string_view right, const plist::Value& rule) = 0;
  // Removes the definition of `right`. Answers 0, ENOENT when it is not
  // defined, or another error number; on failure nothing changed.
  virtual int removeRight(std::string_view right) = 0;
};

}  // namespace nightjar::platform
