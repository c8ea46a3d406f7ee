// status: the scheduler, its events, the next one, the notify period, the
// version, and the wake alarm the RTC holds beside the earliest wake entry.
#include <ctime>
#include <fstream>
#include <iostream>
#include <sstream>

#include "client/connection.h"
#include "commands.h"
#include "event_json.h"
#include "human_time.h"
#include "plist/xml.h"

namespace nightjar::ctl {
namespace {

using Json = nlohmann::ordered_json;

// The wake-entry file and the RTC are small; anything larger is not theirs.
constexpr std::size_t kMaxFileBytes = 4 << 20;

std::string underRoot(const char* path) {
  std::string root = client::daemonRoot();
  if (root.back() == '/')
    root.pop_back();
  return root + path;
}

std::string readSmallFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text(kMaxFileBytes, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(file.gcount()));
  return text;
}

// Unix seconds in "<root>/sys/class/rtc/rtc0/wakealarm"; none when unset.
std::optional<long long> rtcAlarm() {
  std::istringstream text(readSmallFile(underRoot("/sys/class/rtc/rtc0/wakealarm")));
  long long seconds = 0;
  if (!(text >> seconds) || seconds <= 0)
    return std::nullopt;
  return seconds;
}

// The earliest future entry of "<root>/var/lib/nightjar/powerevents.plist".
std::optional<long long> earliestWake(long long now) {
  const plist::Value entries =
      plist::parseXml(readSmallFile(underRoot("/var/lib/nightjar/powerevents.plist")));
  std::optional<long long> earliest;
  if (const plist::Array* array = entries.asArray())
    for (const plist::Value& entry : *array)
      if (const std::optional<plist::AbsoluteTime> time = entry.get("time").asDate()) {
        const long long seconds = toUnix(*time);
        if (seconds > now && (!earliest || seconds < *earliest))
          earliest = seconds;
      }
  return earliest;
}

// The pending event due first.
plist::Value nextEvent(const plist::Value& pending) {
  plist::Value next;
  if (const plist::Array* array = pending.asArray())
    for (const plist::Value& event : *array) {
      const auto date = event.get("metadatatriggerdate").asDate();
      if (date && (!next || *date < *next.get("metadatatriggerdate").asDate()))
        next = event;
    }
  return next;
}

Json dateJson(const std::optional<long long>& seconds) {
  return seconds ? Json(formatIso(toAbsolute(*seconds))) : Json(nullptr);
}

std::string dateWords(const std::optional<long long>& seconds) {
  return seconds ? formatLocal(*seconds) : "none";
}

}  // namespace

int showStatus(Session& session, bool json) {
  plist::Value enabled, events, pending, period, version;
  if (!session.call("scheduler.enabled", {}, &enabled) ||
      !session.call("scheduler.events", {}, &events) ||
      !session.call("notifications.pending", {}, &pending) ||
      !session.call("notifications.notifyperiod", {}, &period) ||
      !session.call("build.version", {}, &version))
    return kExitRefused;
  const long long now = std::time(nullptr);
  const plist::Value next = nextEvent(pending);
  const std::optional<long long> nextDate =
      next ? std::optional(toUnix(*next.get("metadatatriggerdate").asDate())) : std::nullopt;
  const std::optional<long long> alarm = rtcAlarm();
  const std::optional<long long> wake = earliestWake(now);
  const bool on = enabled.asBoolean().value_or(false);
  const long seconds = static_cast<long>(period.numberAsDouble().value_or(0));
  const std::string* versionText = version.asString();
  if (json) {
    std::cout << Json{{"scheduler", on},
                      {"events", events.count()},
                      {"next", next ? Json{{"uniqueid", toJson(next.get("uniqueid"))},
                                           {"name", toJson(next.get("name"))},
                                           {"date", dateJson(nextDate)}}
                                    : Json(nullptr)},
                      {"notifyperiod", seconds},
                      {"version", versionText ? *versionText : ""},
                      {"rtcwakealarm", dateJson(alarm)},
                      {"earliestwake", dateJson(wake)},
                      {"wakematches", alarm == wake}}
                     .dump(2)
              << '\n';
    return kExitOk;
  }
  const std::string* nextName = next.get("name").asString();
  std::cout << "scheduler:      " << (on ? "on" : "off") << '\n'
            << "events:         " << events.count() << '\n'
            << "next event:     "
            << (next ? (nextName ? *nextName : "?") + " at " + dateWords(nextDate) : "none") << '\n'
            << "notify period:  " << formatDuration(seconds) << '\n'
            << "version:        " << (versionText ? *versionText : "?") << '\n'
            << "RTC wake alarm: " << dateWords(alarm) << '\n'
            << "earliest wake:  " << dateWords(wake) << '\n';
  if (alarm != wake)
    std::cout << "warning: the RTC wake alarm (" << dateWords(alarm)
              << ") differs from the earliest wake entry (" << dateWords(wake)
              << "): the machine may not power on as planned\n";
  return kExitOk;
}

}  // namespace nightjar::ctl
