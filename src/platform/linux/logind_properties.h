// Readers of logind's seat and session properties. Each checks every type in
// the message and answers nullopt on anything it does not expect.
#pragma once

#include <systemd/sd-bus.h>

#include <optional>
#include <string>

#include "platform/console_user_source.h"

namespace nightjar::platform::linux_adapter::logind {

// What a seat's PropertiesChanged signal ("sa{sv}as") says of ActiveSession.
struct ActiveSessionChange {
  bool invalidated = false;  // named as invalidated: its value must be asked for
  std::string path;          // the new session's object path; "/" for none
};
// nullopt also when the signal is about another interface or does not touch
// ActiveSession.
std::optional<ActiveSessionChange> readActiveSessionChange(sd_bus_message* signal);

// The session path in a reply to Properties.Get(Seat, "ActiveSession").
std::optional<std::string> readActiveSessionReply(sd_bus_message* reply);

// A session from a reply to Properties.GetAll(Session): kind from "Class",
// name from "Name", uid from "User"; the gid is left for the caller.
std::optional<ConsoleSession> readSessionReply(sd_bus_message* reply);

}  // namespace nightjar::platform::linux_adapter::logind
