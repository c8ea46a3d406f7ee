// The events as a table a person reads: name, kind, action, next trigger
// date in local time, state, identifier; and the words of one event.
#pragma once

#include <string>
#include <vector>

#include "plist/value.h"

namespace nightjar::ctl {

struct EventWords {
  std::string name, kind, action, next, state, id;
};

// What to say about `event`, given the pending list (its trigger dates and
// warnings) and the time now (Unix seconds).
EventWords describeEvent(const plist::Value& event, const plist::Value& pending, long long now);

// Columns padded to their widest cell, under a header line; sorted by name
// as the daemon sends them.
std::string formatTable(const std::vector<EventWords>& rows);

}  // namespace nightjar::ctl
