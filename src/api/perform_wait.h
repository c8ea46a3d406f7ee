// Requests that change state wait while an event is being performed, so that
// nothing a client asks for takes effect between an event's announcement and
// its action; they are carried out, in the order they arrived, once the
// perform has completed. Requests that only read do not wait.
//
// "Settled" means: no perform under way, no request waiting, and every
// request that waited answered. A stop waits for it. Run-loop thread only.
#pragma once

#include <functional>
#include <string_view>

namespace nightjar::api {

// Whether `right` (lower-case ASCII) is one of the default rights that carry
// the write rule.
bool isWriteRight(std::string_view right);

// Whether a request arriving now for the write right must wait: a perform is
// under way, or earlier requests wait still.
bool performWaitNeeded();

// Keeps `step` until no perform is under way and every step kept before it
// has run; it runs then, from the run loop.
void performWaitKeep(std::function<void()> step);

// Holds the daemon unsettled until close() or destruction, whichever comes
// first: one per request that waited, closed once it is answered.
class PerformWaitTicket {
 public:
  PerformWaitTicket();
  ~PerformWaitTicket();
  PerformWaitTicket(const PerformWaitTicket&) = delete;
  PerformWaitTicket& operator=(const PerformWaitTicket&) = delete;
  void close();

 private:
  bool open_ = true;
};

// Calls `callback` once settled: at once when settled now.
void performWaitWhenSettled(std::function<void()> callback);

// Drops every kept step and settle callback without calling them (tests).
void performWaitReset();

}  // namespace nightjar::api
