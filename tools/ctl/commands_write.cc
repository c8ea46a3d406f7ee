// add, set, remove, enable, disable, delay, cancel, reset, notify-period, raw.
#include <ctime>
#include <iostream>

#include "commands.h"
#include "human_time.h"
#include "plist/xml.h"

namespace nightjar::ctl {
namespace {

int done(bool succeeded) {
  return succeeded ? kExitOk : kExitRefused;
}

int usage(const std::string& error) {
  complain(error);
  return kExitUsage;
}

plist::Value text(const std::string& value) {
  return plist::Value::string(value);
}

}  // namespace

int addEvent(Session& session, const EventOptions& options) {
  const std::string id = newIdentifier();
  std::string error;
  const std::optional<plist::Value> event = buildEvent(id, options, std::time(nullptr), error);
  if (!event)
    return usage(error);
  if (!session.call("scheduler.set", *event))
    return kExitRefused;
  std::cout << id << '\n';
  return kExitOk;
}

int setEvent(Session& session, const std::string& id, const EventOptions& options) {
  // Checked against a placeholder first, so bad input sends nothing at all.
  std::string error;
  if (!changeEvent(plist::Value::dictionary({}), options, std::time(nullptr), error) &&
      error.find("needs --daily") == std::string::npos)
    return usage(error);
  const plist::Value events = fetchEvents(session);
  if (!events)
    return kExitRefused;
  for (const plist::Value& event : *events.asArray()) {
    if (event.get("uniqueid") != text(id))
      continue;
    const std::optional<plist::Value> changed =
        changeEvent(event, options, std::time(nullptr), error);
    if (!changed)
      return usage(error);
    return done(session.call("scheduler.set", *changed));
  }
  complain("no event has the identifier " + id);
  return kExitRefused;
}

int removeEvent(Session& session, const std::string& id) {
  const plist::Value reply = session.exchange("scheduler.remove", text(id));
  if (reply && reply.get("status") == plist::Value::integer(400)) {
    complain("no event has the identifier " + id);
    return kExitRefused;
  }
  return done(session.report("scheduler.remove", reply));
}

int setEnabled(Session& session, bool enabled) {
  return done(session.call("scheduler.setenabled", plist::Value::boolean(enabled)));
}

int delayEvent(Session& session, const std::string& id, const std::string& duration) {
  const std::optional<long> seconds = parseDuration(duration);
  if (!seconds)
    return usage("\"" + duration + "\" is not a duration (like 90, 30s, 10m, 2h or 1h30m)");
  return done(session.call("notifications.delay",
                           plist::Value::dictionary({{"seconds", plist::Value::integer(*seconds)},
                                                     {"uniqueid", text(id)}}),
                           nullptr, id));
}

int cancelOrReset(Session& session, const std::string& request, const std::string& id) {
  return done(session.call(request, text(id), nullptr, id));
}

int notifyPeriod(Session& session, const std::optional<std::string>& duration) {
  if (duration) {
    const std::optional<long> seconds = parseDuration(*duration);
    if (!seconds)
      return usage("\"" + *duration + "\" is not a duration (like 90, 30s, 10m, 2h or 1h30m)");
    return done(session.call("notifications.setnotifyperiod",
                             plist::Value::real(static_cast<double>(*seconds))));
  }
  plist::Value period;
  if (!session.call("notifications.notifyperiod", {}, &period))
    return kExitRefused;
  std::cout << formatDuration(static_cast<long>(period.numberAsDouble().value_or(0))) << '\n';
  return kExitOk;
}

int rawRequest(Session& session, const std::string& request,
               const std::optional<std::string>& xml) {
  plist::Value parameter;
  if (xml) {
    // A bare value ("<integer>5</integer>") or a whole document.
    const bool document = xml->find("<plist") != std::string::npos;
    parameter = plist::parseXml(document ? *xml : "<plist version=\"1.0\">" + *xml + "</plist>");
    if (!parameter)
      return usage("the parameter is not an XML property list");
  }
  const plist::Value reply = session.exchange(request, parameter);
  if (!reply)
    return kExitRefused;
  std::cout << plist::writeXml(reply);
  return done(session.report(request, reply));
}

}  // namespace nightjar::ctl
