#include "api/authorization.h"

#include <utility>

#include "api/refusal_log.h"
#include "logging/logging.h"
#include "wire/authorization_form.h"

namespace nightjar::api {

struct Authorization {
  // The authority goes first on destruction, dropping its pending checks, whose
  // completions refer to the policy.
  std::unique_ptr<platform::PolicyDatabase> policy;
  std::unique_ptr<platform::Authority> authority;
  std::string procRoot;
};

namespace {

constexpr std::string_view kAllowRule = "allow";

std::unique_ptr<Authorization>& slot() {
  static std::unique_ptr<Authorization> authorization;
  return authorization;
}

// A right name travels to C interfaces and the bus: no NUL, nothing beyond ASCII.
bool isPlainAscii(std::string_view right) {
  if (right.empty())
    return false;
  for (unsigned char c : right) {
    if (c == 0 || c >= 0x80)
      return false;
  }
  return true;
}

// Departure: within the refusal lines' per-uid bound (api/refusal_log.h).
bool refuse(const std::string& right, uid_t uid) {
  if (refusalLineAdmitted(uid))
    logging::logMessage(LOG_NOTICE, "Authorization refused: %s", right.c_str());
  return false;
}

// Without an authority the installed policy decides alone.
bool decideByPolicy(Authorization& authorization, const std::string& right, uid_t uid) {
  plist::Value rule = authorization.policy->rule(right);
  if (rule.isNone())
    return refuse(right, uid);
  const std::string* name = rule.asString();
  if ((name != nullptr && *name == kAllowRule) || uid == 0)
    return true;
  return refuse(right, uid);
}

}  // namespace

plist::Value readRule() {
  return plist::Value::string(std::string(kAllowRule));
}

plist::Value writeRule() {
  return plist::Value::dictionary({
      {"class", plist::Value::string("user")},
      {"group", plist::Value::string("admin")},
      {"shared", plist::Value::boolean(true)},
      {"allow-root", plist::Value::boolean(true)},
  });
}

void installDefaultRights(platform::PolicyDatabase& database) {
  const plist::Value rules[] = {readRule(), writeRule()};
  for (const RightDefinition& right : kDefaultRights) {
    if (!database.rule(right.name).isNone())
      continue;
    if (int status = database.setRight(right.name, rules[right.write ? 1 : 0]); status != 0) {
      logging::logMessage(LOG_ERR, "Unable to set right: %s, %d", std::string(right.name).c_str(),
                          status);
    }
  }
}

void uninstallRights(platform::PolicyDatabase& database) {
  for (const RightDefinition& right : kDefaultRights) {
    if (database.rule(right.name).isNone())
      continue;
    if (int status = database.removeRight(right.name); status != 0) {
      logging::logMessage(LOG_ERR, "Unable to remove right: %s, %d",
                          std::string(right.name).c_str(), status);
    }
  }
}

bool authorizationCreate(AuthorizationPorts ports) {
  if (slot() != nullptr)
    return true;
  if (ports.policy == nullptr)
    return false;
  slot() = std::make_unique<Authorization>(Authorization{
      std::move(ports.policy), std::move(ports.authority), std::move(ports.procRoot)});
  return true;
}

void authorizationDestroy() {
  slot().reset();
}

Authorization* authorizationGet() {
  return slot().get();
}

void authorizationCheck(const plist::Value& authorization, const platform::PeerCredentials& peer,
                        std::string right, std::function<void(bool granted)> done) {
  Authorization* self = authorizationGet();
  std::optional<ExternalForm> form;
  if (self != nullptr && isPlainAscii(right))
    form = formOfPeer(authorization, peer, self->procRoot);
  if (!form)
    return done(false);
  if (peer.uid == 0 && !self->policy->rule(right).isNone())
    return done(true);
  if (self->authority == nullptr)
    return done(decideByPolicy(*self, right, peer.uid));

  const platform::AuthorizationSubject subject{peer.pid, peer.uid, form->startTime};
  self->authority->check(
      subject, right,
      [self, right, uid = peer.uid, done = std::move(done)](platform::AuthorityAnswer answer) {
        switch (answer) {
          case platform::AuthorityAnswer::Granted:
            return done(true);
          case platform::AuthorityAnswer::Refused:
            return done(refuse(right, uid));
          case platform::AuthorityAnswer::NoAuthority:
            return done(decideByPolicy(*self, right, uid));
        }
      });
}

}  // namespace nightjar::api
