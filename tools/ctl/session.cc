#include "session.h"

#include <unistd.h>

#include <iostream>

#include "client/request.h"
#include "client/sentences.h"
#include "rights.h"

namespace nightjar::ctl {

void complain(std::string_view line) {
  std::cerr << "nightjarctl: " << line << '\n';
}

bool Session::connect() {
  if (connection_)
    return true;
  std::string error;
  connection_ = client::Connection::open(client::socketPath(), error);
  authorization_ = client::ownAuthorization();
  if (!connection_)
    complain(error);
  return connection_.has_value();
}

plist::Value Session::exchange(std::string_view request, const plist::Value& parameter) {
  if (!connect())
    return {};
  const std::string right = client::rightName(request);
  if (askPassword_ && ::getuid() != 0 && client::isWriteRequest(request) &&
      asked_.insert(right).second)
    obtainRight(right);
  std::string error;
  const plist::Value reply =
      connection_->call(client::makeRequest(request, authorization_, parameter), error);
  if (!reply)
    complain(error);
  return reply;
}

bool Session::call(std::string_view request, const plist::Value& parameter, plist::Value* response,
                   std::string_view subject) {
  return report(request, exchange(request, parameter), response, subject);
}

bool Session::report(std::string_view request, const plist::Value& reply, plist::Value* response,
                     std::string_view subject) {
  if (!reply)
    return false;
  if (client::succeeded(reply, response))
    return true;
  const std::vector<std::string> lines = client::describeFailure(request, reply);
  for (std::size_t i = 0; i < lines.size(); ++i)
    complain(i == 0 && !subject.empty() ? std::string(subject) + ": " + lines[i] : lines[i]);
  return false;
}

}  // namespace nightjar::ctl
