// Asks polkit, with interaction, whether this process holds a right, so that
// the desktop's own authentication dialog appears when the right needs it.
// The daemon's later check (never interactive) then finds the answer kept.
#pragma once

#include <systemd/sd-bus.h>

#include <functional>
#include <string>

namespace nightjar::agent {

// Starts the check on `systemBus`; `done` runs once with polkit's answer
// (false when polkit cannot be asked). The dialog waits for the person, so the
// answer may take minutes: it comes through the loop, never blocking it.
void checkRight(sd_bus* systemBus, const std::string& right, std::function<void(bool)> done);

}  // namespace nightjar::agent
