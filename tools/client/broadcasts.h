// The daemon's broadcasts on the system bus (DBUS_SYSTEM_BUS_ADDRESS when
// set): signal "Notification" (name, user info as an XML property list) of
// interface "quillon.nightjar" on the path "/quillon/nightjar".
#pragma once

#include <functional>
#include <string>

#include "plist/value.h"

namespace nightjar::client {

// Called once per broadcast; the user info is none when it is empty or not a
// property list.
using BroadcastHandler = std::function<void(const std::string& name, const plist::Value& info)>;

// Follows the broadcasts until the bus goes away or a signal ends the
// process. On failure answers false with a sentence in `error`; `ready` runs
// once the subscription is in place.
bool followBroadcasts(const BroadcastHandler& handler, const std::function<void()>& ready,
                      std::string& error);

}  // namespace nightjar::client
