#include "api/request_handler.h"

#include <utility>

#include "api/authorization.h"
#include "api/refusal_log.h"

namespace nightjar::api {

// The answer may come later, from the authority: it is given in the
// requester's scope too, so that its log line counts against that uid.
Authorize authorizeAs(const platform::PeerCredentials& peer) {
  return [peer](const plist::Value& authorization, std::string right, AuthorizationDone done) {
    authorizationCheck(authorization, peer, std::move(right),
                       [uid = peer.uid, done = std::move(done)](bool granted) {
                         RequesterScope scope(uid);
                         done(granted);
                       });
  };
}

void dispatchSocketRequest(const Request& request, Responder responder) {
  RequesterScope scope(request.peer.uid);
  dispatchRequest(request.value, authorizeAs(request.peer),
                  [responder = std::move(responder)](plist::Value reply) {
                    responder.reply(std::move(reply));
                  });
}

}  // namespace nightjar::api
