#include "api/request_handler.h"

#include <utility>

#include "api/authorization.h"

namespace nightjar::api {

Authorize authorizeAs(const platform::PeerCredentials& peer) {
  return [peer](const plist::Value& authorization, std::string right, AuthorizationDone done) {
    authorizationCheck(authorization, peer, std::move(right), std::move(done));
  };
}

void dispatchSocketRequest(const Request& request, Responder responder) {
  dispatchRequest(request.value, authorizeAs(request.peer),
                  [responder = std::move(responder)](plist::Value reply) {
                    responder.reply(std::move(reply));
                  });
}

}  // namespace nightjar::api
