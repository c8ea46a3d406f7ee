// The external form of an authorization: 32 bytes by which a client names its
// own process, and the check that the form names the peer actually connected.
//
//   offset  size  field
//        0     4  magic "NJAZ"
//        4     4  version 1
//        8     4  pid
//       12     4  uid
//       16     8  process start time (field 22 of /proc/PID/stat)
//       24     8  zero
// Numbers are little-endian.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/peer_credentials.h"
#include "plist/value.h"

namespace nightjar::api {

inline constexpr std::size_t kExternalFormBytes = 32;
inline constexpr std::uint32_t kExternalFormVersion = 1;

struct ExternalForm {
  std::uint32_t pid = 0;
  std::uint32_t uid = 0;
  std::uint64_t startTime = 0;
};

// The fields of `value`; none unless it is data of exactly 32 bytes with the
// right magic, version and zero tail.
std::optional<ExternalForm> parseExternalForm(const plist::Value& value);
// The 32 bytes of `form`, as a client sends them.
plist::Bytes encodeExternalForm(const ExternalForm& form);

// Field 22 of "<procRoot>/<pid>/stat": when the process started, in clock
// ticks since boot. None when the process does not exist or the file is not
// in the kernel's shape.
std::optional<std::uint64_t> processStartTime(const std::string& procRoot, pid_t pid);

// The form when it names the connected peer itself: pid and uid equal the
// peer's, and the start time equals that process's current one, so a form of
// an ended process whose pid was reused does not pass. None otherwise.
std::optional<ExternalForm> formOfPeer(const plist::Value& value,
                                       const platform::PeerCredentials& peer,
                                       const std::string& procRoot);

}  // namespace nightjar::api
