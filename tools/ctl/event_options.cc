#include "event_options.h"

#include <array>
#include <fstream>
#include <utility>

#include "human_time.h"

namespace nightjar::ctl {
namespace {

constexpr std::array<std::pair<std::string_view, std::string_view>, 7> kActions = {{
    {"shutdown", "shutdown"},
    {"restart", "restart"},
    {"sleep", "sleep"},
    {"wake", "wake"},
    {"poweron", "start up or wake"},
    {"logout", "logout"},
    {"switch-user", "fast user switch"},
}};

plist::Value text(std::string value) {
  return plist::Value::string(std::move(value));
}

std::optional<plist::Value> dailyTrigger(const plist::Value& old, const EventOptions& options,
                                         std::string& error) {
  plist::Value trigger = plist::Value::dictionary({{"type", text("daily")}});
  if (old.get("type") == text("daily"))
    trigger = old;  // --days alone, or --daily alone, keeps the other half
  if (options.daily) {
    const std::optional<long> clock = parseClock(*options.daily);
    if (!clock) {
      error = "\"" + *options.daily + "\" is not a time of day (HH:MM)";
      return std::nullopt;
    }
    trigger = trigger.with("secondsfrommidnight", plist::Value::integer(*clock));
  }
  if (options.days || !trigger.get("days")) {
    const std::optional<std::vector<std::string>> days =
        parseDays(options.days.value_or("all"), error);
    if (!days)
      return std::nullopt;
    plist::Array names;
    for (const std::string& day : *days)
      names.push_back(text(day));
    trigger = trigger.with("days", plist::Value::array(std::move(names)));
  }
  if (!trigger.get("secondsfrommidnight")) {
    error = "--days needs --daily HH:MM for an event that is not daily";
    return std::nullopt;
  }
  return trigger;
}

// The trigger the options ask for; the old one when they ask for none.
std::optional<plist::Value> trigger(const plist::Value& old, const EventOptions& options,
                                    long long now, std::string& error) {
  const int kinds =
      (options.at ? 1 : 0) + (options.daily || options.days ? 1 : 0) + (options.idle ? 1 : 0);
  if (kinds > 1) {
    error = "give one of --at, --daily (with --days) and --idle";
    return std::nullopt;
  }
  if (options.at) {
    const std::optional<long long> instant = parseAt(*options.at, now, error);
    if (!instant)
      return std::nullopt;
    return plist::Value::dictionary(
        {{"type", text("once")}, {"date", plist::Value::date(toAbsolute(*instant))}});
  }
  if (options.idle) {
    const std::optional<long> seconds = parseDuration(*options.idle);
    if (!seconds) {
      error = "\"" + *options.idle + "\" is not a duration (like 90, 30s, 10m, 2h or 1h30m)";
      return std::nullopt;
    }
    return plist::Value::dictionary(
        {{"type", text("inactive")}, {"secondsofinactivity", plist::Value::integer(*seconds)}});
  }
  if (kinds == 1)
    return dailyTrigger(old, options, error);
  return old;
}

}  // namespace

std::optional<std::string> actionName(std::string_view word) {
  for (const auto& [option, name] : kActions)
    if (option == word)
      return std::string(name);
  return std::nullopt;
}

std::string actionWord(std::string_view name) {
  for (const auto& [option, recordName] : kActions)
    if (recordName == name)
      return std::string(option);
  return std::string(name);
}

std::optional<plist::Value> changeEvent(const plist::Value& event, const EventOptions& options,
                                        long long now, std::string& error) {
  plist::Value changed = event;
  if (options.action) {
    const std::optional<std::string> name = actionName(*options.action);
    if (!name) {
      error = "\"" + *options.action +
              "\" is not an action (shutdown, restart, sleep, wake, poweron, logout, switch-user)";
      return std::nullopt;
    }
    changed = changed.with("action", event.get("action").with("type", text(*name)));
  }
  const std::optional<plist::Value> when = trigger(event.get("trigger"), options, now, error);
  if (!when)
    return std::nullopt;
  if (*when)
    changed = changed.with("trigger", *when);
  if (options.name)
    changed = changed.with("name", text(*options.name));
  if (options.disabled || options.enabled)
    changed = changed.with("enabled", plist::Value::boolean(options.enabled));
  return changed;
}

std::optional<plist::Value> buildEvent(const std::string& uniqueid, const EventOptions& options,
                                       long long now, std::string& error) {
  if (!options.action || !(options.at || options.daily || options.idle)) {
    error = "add needs --action and one of --at, --daily and --idle";
    return std::nullopt;
  }
  EventOptions named = options;
  if (!named.name)
    named.name = *options.action;
  named.enabled = !options.disabled;
  return changeEvent(plist::Value::dictionary({{"uniqueid", text(uniqueid)}}), named, now, error);
}

std::string newIdentifier() {
  std::string uuid;
  std::ifstream("/proc/sys/kernel/random/uuid") >> uuid;
  for (char& c : uuid)
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return uuid;
}

}  // namespace nightjar::ctl
