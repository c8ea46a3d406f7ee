// The Authority over polkit: CheckAuthorization on the system bus, without
// user interaction, answered asynchronously from the run loop.
#pragma once

#include <chrono>
#include <memory>

#include "platform/authority.h"
#include "platform/linux/system_bus.h"

namespace nightjar::platform::linux_adapter {

// How long a check may wait for polkit before it refuses.
inline constexpr std::chrono::microseconds kDefaultPolkitTimeout = std::chrono::seconds(10);

// $NIGHTJAR_POLKIT_TIMEOUT (seconds, a decimal number above 0 and at most
// 600) when set and valid, else kDefaultPolkitTimeout. Lets the tests wait a
// moment instead of ten seconds for a polkit that never answers.
std::chrono::microseconds polkitTimeoutFromEnvironment();

// Answers nullptr when `bus` is null: no authority can run without a bus.
// Otherwise each check asks polkit and answers NoAuthority when nobody owns
// polkit's name on the bus (and it cannot be started), Granted or Refused as
// polkit says, and Refused on any failure or after `timeout`; NoAuthority
// while the bus is lost. `bus` must be attached to the run loop and outlive
// the authority.
std::unique_ptr<Authority> makePolkitAuthority(
    SystemBusConnection* bus, std::chrono::microseconds timeout = kDefaultPolkitTimeout);

}  // namespace nightjar::platform::linux_adapter
