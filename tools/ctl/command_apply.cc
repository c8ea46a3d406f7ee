// apply FILE: make the daemon's events equal to the file's, one request per
// event that differs, one line per change.
#include <fstream>
#include <iostream>

#include "apply_plan.h"
#include "commands.h"
#include "event_json.h"

namespace nightjar::ctl {
namespace {

// An export file is a few events; a far larger one is a mistake.
constexpr std::size_t kMaxFileBytes = 16 << 20;

std::optional<plist::Value> readEvents(const std::string& path, std::string& error) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    error = "cannot read " + path;
    return std::nullopt;
  }
  std::string text(kMaxFileBytes + 1, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(file.gcount()));
  if (text.size() > kMaxFileBytes) {
    error = path + " is larger than 16 MiB";
    return std::nullopt;
  }
  const nlohmann::ordered_json json = nlohmann::ordered_json::parse(text, nullptr, false);
  if (json.is_discarded() || !json.is_array()) {
    error = path + " is not a JSON array of events";
    return std::nullopt;
  }
  plist::Value events = fromJson(json, error);
  if (!events) {
    error = path + ": " + error;
    return std::nullopt;
  }
  return events;
}

}  // namespace

int applyFile(Session& session, const std::string& path, bool check) {
  std::string error;
  const std::optional<plist::Value> wanted = readEvents(path, error);
  if (!wanted) {
    complain(error);
    return kExitUsage;
  }
  const plist::Value held = fetchEvents(session);
  if (!held)
    return kExitRefused;
  const std::vector<Change> changes = planChanges(held, *wanted);
  int status = kExitOk;
  for (const Change& change : changes) {
    const std::string line = describeChange(change);
    if (check) {
      std::cout << "would " << line << '\n';
      continue;
    }
    const bool removal = change.kind == Change::Kind::Remove;
    const bool sent =
        removal ? session.call("scheduler.remove", change.event.get("uniqueid"), nullptr, line)
                : session.call("scheduler.set", change.event, nullptr, line);
    if (sent)
      std::cout << line << '\n';
    else
      status = kExitRefused;
  }
  return check && !changes.empty() ? kExitWouldChange : status;
}

}  // namespace nightjar::ctl
