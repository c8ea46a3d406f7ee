// The API socket server: listens on a Unix-domain stream socket, cuts each
// connection's bytes into messages (see framing.h), hands each request with
// the peer's credentials to one request handler, and sends the handler's
// answers back as replies. It knows nothing of objects, actions or rights.
// Run-loop thread only: every callback comes from the current run loop.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "api/socket_request.h"

namespace nightjar::api {

// Where the daemon listens, under its root.
inline constexpr std::string_view kSocketPath = "/var/tmp/quillon.nightjar/api";

struct SocketServer;

// Why creation failed: the step ("runloop", "socket", "path", "parent",
// "directory", "bind", "listen") and its error number.
struct SocketServerFailure {
  const char* step = nullptr;
  int error = 0;
};

// Listens at `path` on the current run loop (see openListeningSocket for the
// folder checks). Answers nullptr on any failure, with everything acquired
// released and no node left at `path`; `failure`, when given, says why.
SocketServer* socketServerCreate(SocketRequestHandler handler, const std::string& path,
                                 SocketServerFailure* failure = nullptr);
// Closes every connection (unsent replies are dropped; requests still with the
// handler are answered into the void), stops listening and removes the node
// at the path; the folder stays. Accepts nullptr. Not from inside a callback
// of the server.
void socketServerDestroy(SocketServer* server);

struct SocketServerDeleter {
  void operator()(SocketServer* server) const { socketServerDestroy(server); }
};
using SocketServerPtr = std::unique_ptr<SocketServer, SocketServerDeleter>;

// Holds back every reply made from now on (each stays queued and counts
// towards the 100) until socketServerReleaseReplies. A connection with a held
// reply reads nothing more meanwhile. Meant for replies that may leave only
// once the state they acknowledge is on disk: hold when the state changes,
// release in the end of a pass, after the wake entries and the save.
void socketServerHoldReplies(SocketServer* server);
// Writes the held replies and lets every connection go on; later replies
// leave at once again. Handlers run only on later callbacks, never inside
// this call.
void socketServerReleaseReplies(SocketServer* server);
bool socketServerRepliesHeld(const SocketServer* server);

// Open connections, for tests and diagnostics.
std::size_t socketServerClientCount(const SocketServer* server);

}  // namespace nightjar::api
