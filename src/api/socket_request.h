// What the socket server hands its request handler: the decoded request with
// the peer's credentials, and a responder through which the reply goes back,
// now or later.
#pragma once

#include <functional>
#include <memory>

#include "platform/peer_credentials.h"
#include "plist/value.h"

namespace nightjar::api {

namespace internal {
struct PendingRequest;
}

struct Request {
  plist::Value value;              // the decoded property list, of any kind
  platform::PeerCredentials peer;  // recorded by the kernel when the peer connected
};

// The way back to the client for one request. A connection hands its handler
// one request at a time: its later messages wait until this request is
// answered, while every other connection is served.
//
// Copies share one answer. The first reply() counts; later ones do nothing.
// When the last copy goes without a reply, the request is answered with none.
// Replying after the connection closed does nothing. Run-loop thread only.
class Responder {
 public:
  explicit Responder(std::shared_ptr<internal::PendingRequest> pending)
      : pending_(std::move(pending)) {}

  // Sends `reply` as the RPLY to the request, unless it is none (then nothing
  // is sent); either way the connection goes on with its next message.
  void reply(plist::Value reply) const;
  // Whether reply() was called already.
  bool answered() const;

 private:
  std::shared_ptr<internal::PendingRequest> pending_;
};

// Handles one request. It may call `responder.reply` before it returns or keep
// the responder and reply later from the run loop.
using SocketRequestHandler = std::function<void(const Request& request, Responder responder)>;

}  // namespace nightjar::api
