// The TimeZoneSource over "/etc/localtime" under the daemon's root.
#pragma once

#include <memory>
#include <string>

#include "platform/time_zone_source.h"

namespace nightjar::platform::linux_adapter {

// Reads the zone from "<root>/etc/localtime". When `root` is not "/", points
// the C library at that file too (TZ=":<root>/etc/localtime"), so that local
// time everywhere in the process follows the daemon's root. Never fails; a
// missing file reads as UTC, as the C library takes it.
std::unique_ptr<TimeZoneSource> makeFileTimeZoneSource(const std::string& root);

}  // namespace nightjar::platform::linux_adapter
