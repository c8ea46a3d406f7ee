// What `apply` changes: the events of a file against the daemon's, by
// identifier. An event equal to the held one is left alone, so that it keeps
// its place in the warnings; equality is that of the exported JSON.
#pragma once

#include <string>
#include <vector>

#include "plist/value.h"

namespace nightjar::ctl {

struct Change {
  enum class Kind { Add, Change, Remove } kind;
  plist::Value event;  // the file's event; the held one for Remove
};

std::vector<Change> planChanges(const plist::Value& held, const plist::Value& wanted);

// "add NAME (ID)", "change NAME (ID)", "remove NAME (ID)".
std::string describeChange(const Change& change);

}  // namespace nightjar::ctl
