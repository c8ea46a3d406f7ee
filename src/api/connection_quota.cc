#include "api/connection_quota.h"

namespace nightjar::api {

Admission ConnectionQuota::admit(uid_t uid, DescriptorRoom room) {
  if (uid == 0) {
    return Admission::Admitted;
  }
  const auto found = byUser_.find(uid);
  if (found != byUser_.end() && found->second >= kConnectionsPerUser) {
    return Admission::OverUserCap;
  }
  if (room.inUse > room.limit || room.limit - room.inUse < kReservedDescriptors) {
    return Admission::OutOfDescriptors;
  }
  ++byUser_[uid];
  return Admission::Admitted;
}

void ConnectionQuota::release(uid_t uid) {
  const auto found = byUser_.find(uid);
  if (found == byUser_.end()) {
    return;
  }
  if (--found->second == 0) {
    byUser_.erase(found);
  }
}

}  // namespace nightjar::api
