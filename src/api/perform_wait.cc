// Blocking the loop for the pause before an action would stall every client,
// signal and bus message, so the pause runs on a timer instead. The requests
// that change state wait here for it, which keeps the order a blocked loop
// would give: the action first, then the changes, each answered in turn.
#include "api/perform_wait.h"

#include <algorithm>
#include <deque>
#include <utility>
#include <vector>

#include "api/authorization.h"
#include "scheduling/event_action.h"

namespace nightjar::api {
namespace {

struct PerformWait {
  std::deque<std::function<void()>> kept;  // in arrival order
  std::vector<std::function<void()>> settledCallbacks;
  int openTickets = 0;
  bool draining = false;
  bool idleAsked = false;  // a drain is asked for at the end of the perform
};

// Never destroyed: tickets held by the kept steps may close during exit.
PerformWait& state() {
  static PerformWait* const wait = new PerformWait;
  return *wait;
}

bool settled() {
  const PerformWait& wait = state();
  return !scheduling::eventActionBusy() && wait.kept.empty() && wait.openTickets == 0;
}

void callSettledCallbacks() {
  if (!settled())
    return;
  std::vector<std::function<void()>> callbacks = std::move(state().settledCallbacks);
  state().settledCallbacks.clear();
  for (const std::function<void()>& callback : callbacks)
    callback();
}

void drain();

void askForIdle() {
  if (state().idleAsked)
    return;
  state().idleAsked = true;
  scheduling::eventActionWhenIdle([] {
    state().idleAsked = false;
    drain();
  });
}

// Runs the kept steps in order until none is left or one of them started a
// perform; then waits for the end of that one.
void drain() {
  PerformWait& wait = state();
  if (wait.draining)
    return;  // the outer drain goes on with what was kept meanwhile
  wait.draining = true;
  while (!wait.kept.empty() && !scheduling::eventActionBusy()) {
    std::function<void()> step = std::move(wait.kept.front());
    wait.kept.pop_front();
    step();
  }
  wait.draining = false;
  if (scheduling::eventActionBusy() && (!wait.kept.empty() || !wait.settledCallbacks.empty()))
    askForIdle();
  callSettledCallbacks();
}

}  // namespace

bool isWriteRight(std::string_view right) {
  return std::any_of(
      kDefaultRights.begin(), kDefaultRights.end(),
      [right](const RightDefinition& row) { return row.write && row.name == right; });
}

bool performWaitNeeded() {
  return scheduling::eventActionBusy() || !state().kept.empty();
}

void performWaitKeep(std::function<void()> step) {
  state().kept.push_back(std::move(step));
  askForIdle();
}

PerformWaitTicket::PerformWaitTicket() {
  ++state().openTickets;
}

PerformWaitTicket::~PerformWaitTicket() {
  close();
}

void PerformWaitTicket::close() {
  if (!open_)
    return;
  open_ = false;
  if (state().openTickets > 0)
    --state().openTickets;
  callSettledCallbacks();
}

void performWaitWhenSettled(std::function<void()> callback) {
  state().settledCallbacks.push_back(std::move(callback));
  if (scheduling::eventActionBusy())
    askForIdle();
  else
    callSettledCallbacks();
}

void performWaitReset() {
  PerformWait& wait = state();
  wait.kept.clear();
  wait.settledCallbacks.clear();
  wait.openTickets = 0;
  wait.idleAsked = false;
}

}  // namespace nightjar::api
