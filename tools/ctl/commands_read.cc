// list, show, pending, version, export, watch: the commands that only read.
#include <ctime>
#include <iostream>

#include "client/broadcasts.h"
#include "commands.h"
#include "event_json.h"
#include "event_table.h"
#include "human_time.h"

namespace nightjar::ctl {
namespace {

plist::Value fetchPending(Session& session) {
  plist::Value pending;
  session.call("notifications.pending", {}, &pending);
  return pending;
}

int printJson(const plist::Value& value) {
  std::cout << toJson(value).dump(2) << '\n';
  return kExitOk;
}

}  // namespace

plist::Value fetchEvents(Session& session) {
  plist::Value events;
  if (!session.call("scheduler.events", {}, &events))
    return {};
  return events ? events : plist::Value::array({});
}

int listEvents(Session& session, bool json) {
  const plist::Value events = fetchEvents(session);
  if (!events)
    return kExitRefused;
  if (json)
    return printJson(events);
  const plist::Value pending = fetchPending(session);
  std::vector<EventWords> rows;
  for (const plist::Value& event : *events.asArray())
    rows.push_back(describeEvent(event, pending, std::time(nullptr)));
  std::cout << formatTable(rows);
  return kExitOk;
}

int showEvent(Session& session, const std::string& id, bool json) {
  const plist::Value events = fetchEvents(session);
  if (!events)
    return kExitRefused;
  for (const plist::Value& event : *events.asArray()) {
    if (event.get("uniqueid") != plist::Value::string(id))
      continue;
    if (json)
      return printJson(event);
    const EventWords words = describeEvent(event, fetchPending(session), std::time(nullptr));
    std::cout << "name:    " << words.name << "\nid:      " << words.id
              << "\nkind:    " << words.kind << "\naction:  " << words.action
              << "\nnext:    " << words.next << "\nstate:   " << words.state << '\n';
    return kExitOk;
  }
  complain("no event has the identifier " + id);
  return kExitRefused;
}

int showPending(Session& session, bool json) {
  plist::Value pending;
  if (!session.call("notifications.pending", {}, &pending))
    return kExitRefused;
  if (!pending)
    pending = plist::Value::array({});
  if (json)
    return printJson(pending);
  // A pending entry is the scheduler's working copy: the event as held says
  // what it is, the entry when it is due.
  const plist::Value events = fetchEvents(session);
  std::vector<EventWords> rows;
  for (const plist::Value& entry : *pending.asArray()) {
    plist::Value event = entry;
    if (const plist::Array* held = events.asArray())
      for (const plist::Value& candidate : *held)
        if (candidate.get("uniqueid") == entry.get("uniqueid"))
          event = candidate;
    rows.push_back(describeEvent(event, pending, std::time(nullptr)));
  }
  std::cout << formatTable(rows);
  return kExitOk;
}

int showVersion(Session& session) {
  plist::Value version;
  if (!session.call("build.version", {}, &version))
    return kExitRefused;
  std::cout << (version.asString() ? *version.asString() : "?") << '\n';
  return kExitOk;
}

int exportEvents(Session& session) {
  const plist::Value events = fetchEvents(session);
  return events ? printJson(events) : kExitRefused;
}

int watchBroadcasts(bool json) {
  const client::BroadcastHandler print = [json](const std::string& name, const plist::Value& info) {
    if (json) {
      std::cout << nlohmann::ordered_json{{"name", name}, {"info", toJson(info)}}.dump()
                << std::endl;
      return;
    }
    std::cout << formatLocal(std::time(nullptr)) << "  " << name;
    if (const std::string* event = info.get("name").asString())
      std::cout << "  " << *event << " ("
                << (info.get("uniqueid").asString() ? *info.get("uniqueid").asString() : "?")
                << ")";
    std::cout << std::endl;
  };
  std::string error;
  const auto ready = [] {
    std::cerr << "Watching nightjard's broadcasts (Ctrl-C to stop)" << std::endl;
  };
  if (!client::followBroadcasts(print, ready, error)) {
    complain(error);
    return kExitRefused;
  }
  return kExitOk;
}

}  // namespace nightjar::ctl
