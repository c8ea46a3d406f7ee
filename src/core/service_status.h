// The one line the service manager shows for the daemon (sd_notify "STATUS="):
// how many events there are and which one runs next.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

#include "plist/value.h"

namespace nightjar::core {

// "12 events; next: Nightly off at 22:30". The time is local, HH:MM; when
// the next event is not due today (local) the date comes first: "next:
// Nightly off on 2026-12-24 at 22:30". Without a dated next event (none, or
// only inactivity events) the line is the count alone: "12 events". One
// event is "1 event". `now` decides what "today" is. The name is cut to 64
// bytes and its control characters become spaces.
std::string serviceStatusText(int eventCount, std::string_view nextName,
                              plist::AbsoluteTime nextDate, bool hasNext, std::time_t now);

}  // namespace nightjar::core
