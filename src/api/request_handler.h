// The socket server's request handler: each request goes through the
// dispatcher, with its right checked for the connected peer, and the reply
// goes back through the responder whenever the check answers.
#pragma once

#include "api/dispatcher.h"
#include "api/socket_request.h"
#include "platform/peer_credentials.h"

namespace nightjar::api {

// The dispatcher's authorization step for requests from `peer`: the
// process-wide check of the authorization rights (a refusal when it is absent).
Authorize authorizeAs(const platform::PeerCredentials& peer);

// Hand this to socketServerCreate.
void dispatchSocketRequest(const Request& request, Responder responder);

}  // namespace nightjar::api
