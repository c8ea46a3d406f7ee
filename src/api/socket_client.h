// One accepted connection of the socket server: it cuts the connection's byte
// stream into messages, hands the requests to the handler one at a time, and
// writes the replies without ever blocking. Internal to the socket server.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>

#include "api/socket_request.h"
#include "platform/peer_credentials.h"
#include "runloop/run_loop.h"
#include "wire/framing.h"
#include "wire/framing_buffer.h"

namespace nightjar::api {

// Whether replies may leave now. Owned by the server and shared by its
// clients: while held, replies wait in their queues (see socketServerHoldReplies).
struct ReplyGate {
  bool held = false;
};

// The most bytes a connection may have in replies waiting to be written,
// beside the count limit: a peer that stops reading cannot make the daemon
// hold a hundred whole event lists. A single reply of any size is still taken
// when none waits before it.
inline constexpr std::size_t kMaxUnsentReplyBytes = 4u << 20;

struct SocketClient;

struct SocketClientCallbacks {
  std::shared_ptr<const SocketRequestHandler> handler;  // may be empty: no replies
  // Called first thing when the client is destroyed; the server forgets it.
  std::function<void(SocketClient& client)> closeNotifier;
  const ReplyGate* gate = nullptr;  // required; outlives the client
};

struct SocketClient : std::enable_shared_from_this<SocketClient> {
  int descriptor = -1;  // connected, non-blocking; -1 once closed
  platform::PeerCredentials peer;
  std::unique_ptr<runloop::Source> source;  // readable / one-shot writable
  std::uint32_t watchedEvents = 0;          // what `source` watches; 0 = off
  // Goes on with buffered requests on a later pass, after a late reply or
  // the gate's opening, so that neither runs a handler inside another callback.
  std::unique_ptr<runloop::Source> resumeSource;
  framing::ReadBuffer readBuffer;
  std::deque<framing::Message> replyQueue;  // oldest first
  std::size_t queuedBytes = 0;              // the sizes of the replies in replyQueue
  std::size_t releasedReplies = 0;          // at the front of the queue: may be written now
  std::size_t writeOffset = 0;              // bytes of the head reply already written
  SocketClientCallbacks callbacks;
  bool requestPending = false;      // the handler has a request and has not answered
  bool processing = false;          // inside the loop over buffered messages
  bool waitingForWritable = false;  // a write met a full socket buffer
  bool closed = false;
};

// The kernel's record of who connected `descriptor`; false when it has none.
bool socketPeerCredentials(int descriptor, platform::PeerCredentials& peer);

// Takes `descriptor` (an accepted connection): records the peer's
// credentials, makes it non-blocking and watches it on `loop`. Closes the
// descriptor and answers nullptr on any failure.
std::shared_ptr<SocketClient> socketClientCreate(runloop::RunLoop& loop, int descriptor,
                                                 SocketClientCallbacks callbacks);
// Closes the connection: notifies the owner, stops watching, closes the
// descriptor, drops unread bytes and unsent replies. A request still with the
// handler is then answered into the void. Does nothing the second time.
void socketClientDestroy(SocketClient& client);
// Writes released replies until the queue is empty or the socket is full (then
// asks for one writability event). Answers 0 or the error number of a failed write.
int socketClientFlush(SocketClient& client);
// Queues `message` and flushes. False when 100 replies are already waiting,
// when it would take the waiting replies past kMaxUnsentReplyBytes, or when the
// flush failed: the caller then closes the connection.
bool socketClientSend(SocketClient& client, framing::Message message);
// The gate opened: writes the held replies and goes on with the requests.
void socketClientRelease(SocketClient& client);

}  // namespace nightjar::api
