// The PolicyDatabase as polkit's action file of the daemon:
//   "<root>/usr/share/polkit-1/actions/quillon.nightjar.policy"
// one <action> per right. Rules map onto polkit's implicit authorizations:
//   "allow"                               <-> yes, yes, yes
//   { "class" = "user", "shared" = true }  <-> auth_admin_keep (all three)
//   { "class" = "user", "shared" = false } <-> auth_admin (all three)
// Any other definition reads as { "allow_any", "allow_inactive",
// "allow_active" } with polkit's words, and may be written back in that form.
// A missing file defines nothing; an unreadable, oversized or corrupt one
// defines nothing either and is never overwritten. Every write is atomic, and
// the file goes when its last action does.
#pragma once

#include <memory>
#include <string>

#include "platform/policy_database.h"

namespace nightjar::platform::linux_adapter {

// `root` is the daemon's root ("/" or $NIGHTJAR_ROOT). Never fails; the
// folders are made on the first write.
std::unique_ptr<PolicyDatabase> makePolkitPolicyFile(std::string root);

}  // namespace nightjar::platform::linux_adapter
