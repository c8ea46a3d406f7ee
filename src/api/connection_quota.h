// Which connections the socket server keeps: a bound per non-root user, and
// descriptors kept in reserve that no non-root connection may take, so that
// idle connections of local users can never starve the daemon's own files or
// root's clients of descriptors. Pure bookkeeping: the caller reads the limit.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <unordered_map>

namespace nightjar::api {

// Beyond the plain accept-all server: otherwise one user's idle connections exhaust descriptors.
inline constexpr std::size_t kConnectionsPerUser = 64;
inline constexpr std::size_t kReservedDescriptors = 32;

enum class Admission {
  Admitted,
  OverUserCap,       // the user holds kConnectionsPerUser already
  OutOfDescriptors,  // keeping it would leave fewer than kReservedDescriptors
};

// The process's descriptors as the new connection finds them.
struct DescriptorRoom {
  std::size_t limit = 0;  // the soft limit on open descriptors
  std::size_t inUse = 0;  // open ones, the new connection included
};

class ConnectionQuota {
 public:
  // Decides on a new connection of `uid` and counts it when admitted. Root is
  // always admitted and never counted: it may use the reserve.
  Admission admit(uid_t uid, DescriptorRoom room);
  // A connection of `uid` closed; nothing happens for one that was not counted.
  void release(uid_t uid);

 private:
  std::unordered_map<uid_t, std::size_t> byUser_;
};

}  // namespace nightjar::api
