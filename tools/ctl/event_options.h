// The options of `add` and `set`, and the event record they make: human input
// checked here, before anything is sent.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "plist/value.h"

namespace nightjar::ctl {

struct EventOptions {
  std::optional<std::string> at;     // --at
  std::optional<std::string> daily;  // --daily HH:MM
  std::optional<std::string> days;   // --days
  std::optional<std::string> idle;   // --idle DURATION
  std::optional<std::string> action;
  std::optional<std::string> name;
  bool disabled = false;
  bool enabled = false;
};

// The record's action name for a word of the command line ("poweron" is
// "start up or wake"), and back; none for an unknown word.
std::optional<std::string> actionName(std::string_view word);
std::string actionWord(std::string_view name);

// A new event: the options applied to an empty record with `uniqueid`. It
// needs one trigger and an action.
std::optional<plist::Value> buildEvent(const std::string& uniqueid, const EventOptions& options,
                                       long long now, std::string& error);
// `event` with the given options changed.
std::optional<plist::Value> changeEvent(const plist::Value& event, const EventOptions& options,
                                        long long now, std::string& error);

// A fresh identifier (a random UUID).
std::string newIdentifier();

}  // namespace nightjar::ctl
