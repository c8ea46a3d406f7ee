// The relay of internal changes to other processes: it remembers the names of
// notifications posted by chosen objects, drops repeats, and hands each name to
// its callbacks at the end of each run-loop pass (before it sleeps, or when it
// exits), as the pass's last step, once the changes are on disk and their
// replies have left. A burst of changes leaves as one broadcast per name.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "plist/value.h"
#include "runloop/notification_center.h"
#include "runloop/run_loop.h"

namespace nightjar::platform {
class DistributedCenter;
}

namespace nightjar::core {

struct RelayCallbacks {
  std::function<void()> start;  // once, when registered
  std::function<void()> stop;   // once, when the relay is destroyed
  std::function<void(std::string_view name, const plist::Value& parameter)> perform;
};

// The relay record; reach it through the functions below.
struct NotificationRelay {
  std::vector<RelayCallbacks> callbacks;
  std::vector<std::string> pending;  // names, without repeats, in order of first queueing
  std::vector<runloop::NotificationCenter*> observedCenters;
  std::unique_ptr<runloop::ObserverHandle> observer;
};

// Makes the process-wide relay on the current run loop; does nothing when it
// exists. Answers whether a relay exists afterwards (false without a run loop).
bool relayCreate();
// Flushes what is still pending (so "socket.closed" leaves), stops every
// callback record and clears the slot; does nothing when absent.
void relayDestroy();
NotificationRelay* relayGet();

// Remembers `name` for the next flush unless it is already pending. The
// parameter is accepted and not kept: broadcasts carry no user information.
void relayQueue(NotificationRelay* relay, std::string_view name,
                const plist::Value& parameter = {});
// Relays every notification whose object is `object` on `center`.
void relayObserve(NotificationRelay* relay, runloop::NotificationCenter* center,
                  const void* object);
void relayAddCallbacks(NotificationRelay* relay, RelayCallbacks callbacks);
// Hands every pending name, in order of first queueing, to every perform
// function in order of registration, then empties the pending list.
void relayFlush(NotificationRelay* relay);

// The callback record that broadcasts each name through `center` with an
// empty user-information dictionary.
RelayCallbacks distributedPoster(platform::DistributedCenter* center);

}  // namespace nightjar::core
