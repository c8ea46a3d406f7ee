#include "apply_plan.h"

#include <map>

#include "event_json.h"

namespace nightjar::ctl {
namespace {

std::string text(const plist::Value& value) {
  const std::string* string = value.asString();
  return string ? *string : "?";
}

// The events of an array by identifier, in their order; a later duplicate wins.
std::map<std::string, plist::Value> byIdentifier(const plist::Value& events) {
  std::map<std::string, plist::Value> found;
  if (const plist::Array* array = events.asArray())
    for (const plist::Value& event : *array)
      found.insert_or_assign(text(event.get("uniqueid")), event);
  return found;
}

}  // namespace

std::vector<Change> planChanges(const plist::Value& held, const plist::Value& wanted) {
  const std::map<std::string, plist::Value> current = byIdentifier(held);
  const std::map<std::string, plist::Value> target = byIdentifier(wanted);
  std::vector<Change> changes;
  for (const auto& [id, event] : current)
    if (!target.contains(id))
      changes.push_back({Change::Kind::Remove, event});
  for (const auto& [id, event] : target) {
    const auto found = current.find(id);
    if (found == current.end())
      changes.push_back({Change::Kind::Add, event});
    else if (toJson(found->second) != toJson(event))
      changes.push_back({Change::Kind::Change, event});
  }
  return changes;
}

std::string describeChange(const Change& change) {
  const char* verb = change.kind == Change::Kind::Add      ? "add"
                     : change.kind == Change::Kind::Change ? "change"
                                                           : "remove";
  return std::string(verb) + " " + text(change.event.get("name")) + " (" +
         text(change.event.get("uniqueid")) + ")";
}

}  // namespace nightjar::ctl
