// The subcommands of nightjarctl. Each answers the exit status: 0 done, 1 the
// daemon refused or cannot be reached, 2 bad input (nothing sent), 3 `apply
// --check` found something to change.
#pragma once

#include <optional>
#include <string>

#include "event_options.h"
#include "session.h"

namespace nightjar::ctl {

int listEvents(Session& session, bool json);
int showEvent(Session& session, const std::string& id, bool json);
int showPending(Session& session, bool json);
int showStatus(Session& session, bool json);
int showVersion(Session& session);
int exportEvents(Session& session);
int watchBroadcasts(bool json);

int addEvent(Session& session, const EventOptions& options);
int setEvent(Session& session, const std::string& id, const EventOptions& options);
int removeEvent(Session& session, const std::string& id);
int setEnabled(Session& session, bool enabled);
int delayEvent(Session& session, const std::string& id, const std::string& duration);
int cancelOrReset(Session& session, const std::string& request, const std::string& id);
int notifyPeriod(Session& session, const std::optional<std::string>& duration);
int rawRequest(Session& session, const std::string& request, const std::optional<std::string>& xml);

int applyFile(Session& session, const std::string& path, bool check);

// The daemon's events ("scheduler.events"), or none after printing why.
plist::Value fetchEvents(Session& session);

}  // namespace nightjar::ctl
