// Authorization rights: the rights that guard the API's requests, their
// installation into the system's policy database (-i, -u), and the check of a
// request's authorization against the connected peer.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/authority.h"
#include "platform/peer_credentials.h"
#include "platform/policy_database.h"
#include "plist/value.h"

namespace nightjar::api {

struct RightDefinition {
  std::string_view name;
  bool write;  // the write rule; else the read rule
};

// The rights in the order they are installed and removed: read rights first.
inline constexpr std::array<RightDefinition, 14> kDefaultRights = {{
    {"quillon.nightjar.build.version", false},
    {"quillon.nightjar.notifications.pending", false},
    {"quillon.nightjar.notifications.notifyperiod", false},
    {"quillon.nightjar.scheduler.enabled", false},
    {"quillon.nightjar.scheduler.events", false},
    {"quillon.nightjar.notifications.cancel", true},
    {"quillon.nightjar.notifications.delay", true},
    {"quillon.nightjar.notifications.reset", true},
    {"quillon.nightjar.notifications.setnotifyperiod", true},
    {"quillon.nightjar.notifications.notify", true},
    {"quillon.nightjar.scheduler.setenabled", true},
    {"quillon.nightjar.scheduler.setevents", true},
    {"quillon.nightjar.scheduler.set", true},
    {"quillon.nightjar.scheduler.remove", true},
}};

// "allow": anyone holds the right.
plist::Value readRule();
// { "class" = "user", "group" = "admin", "shared" = true, "allow-root" = true }.
plist::Value writeRule();

// Defines each default right that `database` does not define yet; a right
// already defined keeps its rule. A failure is logged as "Unable to set right:
// %s, %d" and the next right is tried.
void installDefaultRights(platform::PolicyDatabase& database);
// Removes each default right that `database` defines; a failure is logged as
// "Unable to remove right: %s, %d" and the next right is tried.
void uninstallRights(platform::PolicyDatabase& database);

struct Authorization;

struct AuthorizationPorts {
  // The installed policy; required.
  std::unique_ptr<platform::PolicyDatabase> policy;
  // May be null: then no authority runs and the installed policy decides.
  std::unique_ptr<platform::Authority> authority;
  // Where process start times are read ("/proc"); a seam for tests.
  std::string procRoot = "/proc";
};

// Makes the process-wide checker; does nothing when it exists. Answers whether
// it exists afterwards (false without a policy database).
bool authorizationCreate(AuthorizationPorts ports);
// Clears the slot; checks still under way never complete. Does nothing when
// absent. Not from inside a completion.
void authorizationDestroy();
Authorization* authorizationGet();

// Decides whether the peer holds `right` ("quillon.nightjar.<object>.<action>",
// lower-case ASCII), and calls `done` exactly once: before this returns when
// no round trip is needed, else later from the run loop.
// - Refused silently: `authorization` is not a 32-byte form that names the
//   peer itself (pid, uid and the process's current start time), or `right`
//   is empty or not plain ASCII, or the checker is absent.
// - Root is granted every right the installed policy defines, at once.
// - Everyone else asks the authority, without interaction; its time-out
//   refuses. With no authority on the system the installed policy decides:
//   "allow" grants, any other defined rule grants root only, an undefined
//   right is refused.
// Each refusal after the form check is logged at notice as
// "Authorization refused: %s" with the right. Run-loop thread only.
void authorizationCheck(const plist::Value& authorization, const platform::PeerCredentials& peer,
                        std::string right, std::function<void(bool granted)> done);

}  // namespace nightjar::api
