#include "event_table.h"

#include <algorithm>
#include <array>

#include "event_options.h"
#include "human_time.h"

namespace nightjar::ctl {
namespace {

plist::Value pendingEntry(const plist::Value& pending, const plist::Value& uniqueid) {
  if (const plist::Array* entries = pending.asArray())
    for (const plist::Value& entry : *entries)
      if (entry.get("uniqueid") == uniqueid)
        return entry;
  return {};
}

std::string dailyWords(const plist::Value& trigger) {
  const long seconds =
      static_cast<long>(trigger.get("secondsfrommidnight").numberAsDouble().value_or(0));
  char clock[48];
  std::snprintf(clock, sizeof(clock), "%02ld:%02ld", seconds / 3600, seconds / 60 % 60);
  return std::string("daily ") + clock;
}

std::string kindWords(const plist::Value& trigger) {
  const std::string* type = trigger.get("type").asString();
  if (type == nullptr)
    return "?";
  if (*type == "daily")
    return dailyWords(trigger);
  if (*type == "inactive")
    return "idle " + formatDuration(static_cast<long>(
                         trigger.get("secondsofinactivity").numberAsDouble().value_or(0)));
  return *type;
}

std::string nextWords(const plist::Value& event, const plist::Value& entry, long long now) {
  if (const std::optional<plist::AbsoluteTime> date = entry.get("metadatatriggerdate").asDate())
    return formatLocal(toUnix(*date));
  const plist::Value trigger = event.get("trigger");
  const std::string* type = trigger.get("type").asString();
  if (type && *type == "once" && trigger.get("date").asDate())
    return formatLocal(toUnix(*trigger.get("date").asDate()));
  if (type && *type == "daily") {
    std::vector<std::string> days;
    if (const plist::Array* names = trigger.get("days").asArray())
      for (const plist::Value& name : *names)
        days.push_back(name.asString() ? *name.asString() : "");
    const auto seconds = trigger.get("secondsfrommidnight").asInteger();
    if (const std::optional<long long> next = nextDaily(seconds.value_or(0), days, now))
      return formatLocal(*next);
  }
  return "-";
}

}  // namespace

EventWords describeEvent(const plist::Value& event, const plist::Value& pending, long long now) {
  const plist::Value entry = pendingEntry(pending, event.get("uniqueid"));
  const std::string* name = event.get("name").asString();
  const std::string* id = event.get("uniqueid").asString();
  const std::string* action = event.get("action").get("type").asString();
  std::string state = event.get("enabled").asBoolean().value_or(false) ? "enabled" : "disabled";
  if (entry.get("metadatanotified"))
    state = "warned";
  return {name ? *name : "",
          kindWords(event.get("trigger")),
          action ? actionWord(*action) : "?",
          nextWords(event, entry, now),
          state,
          id ? *id : ""};
}

std::string formatTable(const std::vector<EventWords>& rows) {
  std::vector<EventWords> lines{{"NAME", "KIND", "ACTION", "NEXT", "STATE", "ID"}};
  lines.insert(lines.end(), rows.begin(), rows.end());
  const auto cells = [](const EventWords& row) {
    return std::array<const std::string*, 6>{&row.name, &row.kind,  &row.action,
                                             &row.next, &row.state, &row.id};
  };
  std::array<std::size_t, 6> widths{};
  for (const EventWords& row : lines)
    for (std::size_t i = 0; i < widths.size(); ++i)
      widths[i] = std::max(widths[i], cells(row)[i]->size());
  std::string text;
  for (const EventWords& row : lines) {
    for (std::size_t i = 0; i < widths.size(); ++i) {
      text += *cells(row)[i];
      if (i + 1 < widths.size())
        text += std::string(widths[i] - cells(row)[i]->size() + 2, ' ');
    }
    text += '\n';
  }
  return text;
}

}  // namespace nightjar::ctl
