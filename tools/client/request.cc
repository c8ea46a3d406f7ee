#include "client/request.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>

#include "wire/authorization_form.h"

namespace nightjar::client {
namespace {

constexpr std::array<std::string_view, 8> kWriteRequests = {
    "notifications.cancel", "notifications.delay",
    "notifications.reset",  "notifications.setnotifyperiod",
    "scheduler.setenabled", "scheduler.setevents",
    "scheduler.set",        "scheduler.remove"};

}  // namespace

plist::Value ownAuthorization() {
  const pid_t pid = ::getpid();
  const std::optional<std::uint64_t> started = api::processStartTime("/proc", pid);
  if (!started)
    return {};
  return plist::Value::data(api::encodeExternalForm({.pid = static_cast<std::uint32_t>(pid),
                                                     .uid = static_cast<std::uint32_t>(::getuid()),
                                                     .startTime = *started}));
}

plist::Value makeRequest(std::string_view name, const plist::Value& authorization,
                         const plist::Value& parameter) {
  plist::Dictionary entries{{"Request", plist::Value::string(std::string(name))}};
  if (authorization)
    entries.emplace("Authorization", authorization);
  if (parameter)
    entries.emplace("Parameter", parameter);
  return plist::Value::dictionary(std::move(entries));
}

bool isWriteRequest(std::string_view name) {
  return std::find(kWriteRequests.begin(), kWriteRequests.end(), name) != kWriteRequests.end();
}

std::string rightName(std::string_view request) {
  std::string right = "quillon.nightjar." + std::string(request);
  std::transform(right.begin(), right.end(), right.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return right;
}

bool succeeded(const plist::Value& reply, plist::Value* response) {
  const std::optional<std::int64_t> status = reply.get("status").asInteger();
  if (response != nullptr)
    *response = reply.get("response");
  return status && *status == 200;
}

}  // namespace nightjar::client
