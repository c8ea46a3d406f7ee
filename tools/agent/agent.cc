#include "agent.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <iostream>
#include <utility>

#include "client/request.h"
#include "client/sentences.h"
#include "human_time.h"
#include "polkit_check.h"
#include "warning_text.h"

namespace nightjar::agent {
namespace {

constexpr std::string_view kDelayKey = "delay-";
constexpr std::string_view kCancelKey = "cancel";
// The last notice stays only while the action begins.
constexpr std::int32_t kLastNoticeMs = 10'000;
// The daemon answers reads at once and writes after a perform under way (a
// few seconds); a daemon that answers nothing for longer must not freeze the
// notices.
constexpr int kReplyTimeoutSeconds = 15;

std::string text(const plist::Value& value) {
  const std::string* string = value.asString();
  return string != nullptr ? *string : std::string();
}

std::string actionType(const plist::Value& event) {
  return text(event.get("action").get("type"));
}

NoticeContent warningContent(const plist::Value& event, const std::vector<long>& delays) {
  const std::string type = actionType(event);
  const long long now = std::time(nullptr);
  const std::optional<plist::AbsoluteTime> date = event.get("metadatatriggerdate").asDate();
  const long long when = date ? ctl::toUnix(*date) : now;
  NoticeContent content{.summary = date ? warningSummary(type, when, now) : actionWords(type),
                        .body = warningBody(text(event.get("name")), when - now),
                        .actions = {},
                        .critical = isCritical(type)};
  for (const long seconds : delays)
    content.actions.emplace_back(std::string(kDelayKey) + std::to_string(seconds),
                                 delayLabel(seconds));
  content.actions.emplace_back(kCancelKey, "Cancel");
  return content;
}

}  // namespace

void complain(std::string_view line) {
  std::cerr << "nightjar-agent: " << line << std::endl;
}

Agent::Agent(sd_event* loop, sd_bus* session, std::vector<long> delays)
    : server_(session, {.actionInvoked = [this](std::uint32_t id,
                                                std::string_view key) { onAction(id, key); },
                        .closed = [this](std::uint32_t id) { onClosed(id); },
                        .serverStarted = [this] { onServerStarted(); }}),
      follower_(
          loop,
          [this](const std::string& name, const plist::Value& info) { onBroadcast(name, info); },
          [this] { refresh(); }),
      delays_(std::move(delays)) {}

bool Agent::start() {
  if (!server_.subscribe())
    return false;
  refresh();  // the daemon may be there while the system bus is not
  follower_.start();
  return true;
}

void Agent::onBroadcast(const std::string& name, const plist::Value& info) {
  if (name == "notifications.pending" || name == "socket.open")
    refresh();
  else if (name == "event.willperform")
    showLast(info);
}

void Agent::refresh() {
  plist::Value response;
  const plist::Value reply = call("notifications.pending", {});
  if (reply && client::succeeded(reply, &response))
    follow(response);
}

// The notices follow the warned events of `pending`: a warning that left is
// closed, a new or newly issued one is shown, a shown one stays as it is.
void Agent::follow(const plist::Value& pending) {
  std::map<std::string, plist::Value> warned;
  if (const plist::Array* events = pending.asArray())
    for (const plist::Value& event : *events)
      if (event.get("uniqueid").asString() != nullptr && event.get("metadatanotified").asDate())
        warned.emplace(*event.get("uniqueid").asString(), event);
  for (auto it = notices_.begin(); it != notices_.end();) {
    if (warned.contains(it->first)) {
      ++it;
      continue;
    }
    if (it->second.id != 0 && !it->second.last)
      server_.close(it->second.id);
    it = notices_.erase(it);
  }
  for (const auto& [uniqueid, event] : warned) {
    const double warnedAt = *event.get("metadatanotified").asDate();
    auto [it, added] = notices_.try_emplace(uniqueid);
    Notice& notice = it->second;
    if (!added && (notice.last || notice.warnedAt == warnedAt))
      continue;
    const std::uint32_t replaces = notice.dismissed ? 0 : notice.id;
    notice = Notice{.event = event, .warnedAt = warnedAt};
    show(notice, replaces);
  }
}

void Agent::show(Notice& notice, std::uint32_t replaces) {
  notice.id = server_.notify(warningContent(notice.event, delays_), replaces);
}

// The action begins: the notice becomes one without answers.
void Agent::showLast(const plist::Value& event) {
  const std::string* uniqueid = event.get("uniqueid").asString();
  if (uniqueid == nullptr)
    return;
  Notice& notice = notices_[*uniqueid];
  const std::uint32_t replaces = notice.dismissed ? 0 : notice.id;
  const std::string type = actionType(event);
  notice.event = event;
  notice.last = true;
  notice.dismissed = false;
  notice.id = server_.notify({.summary = finalSummary(type),
                              .body = text(event.get("name")),
                              .actions = {},
                              .critical = isCritical(type),
                              .expireMs = kLastNoticeMs},
                             replaces);
}

void Agent::onAction(std::uint32_t id, std::string_view key) {
  for (auto& [uniqueid, notice] : notices_)
    if (notice.id == id && id != 0 && !notice.last)
      return answer(uniqueid, key);
}

// Sends the person's answer, after polkit's dialog where the right needs one;
// the daemon decides in any case.
void Agent::answer(const std::string& uniqueid, std::string_view key) {
  std::string request = "notifications.cancel";
  plist::Value parameter = plist::Value::string(uniqueid);
  if (key.starts_with(kDelayKey)) {
    long seconds = 0;
    const std::string_view digits = key.substr(kDelayKey.size());
    const auto [end, error] = std::from_chars(digits.begin(), digits.end(), seconds);
    if (error != std::errc() || end != digits.end() ||
        std::find(delays_.begin(), delays_.end(), seconds) == delays_.end())
      return;  // not a choice this agent offered
    request = "notifications.delay";
    parameter = plist::Value::dictionary(
        {{"seconds", plist::Value::integer(seconds)}, {"uniqueid", parameter}});
  } else if (key != kCancelKey) {
    return;
  }
  auto send = [this, uniqueid, request, parameter](bool) {
    const plist::Value reply = call(request, parameter);
    const bool answered = reply && client::succeeded(reply);
    if (reply && !answered)
      for (const std::string& line : client::describeFailure(request, reply))
        complain(line);
    const auto it = notices_.find(uniqueid);
    if (it == notices_.end() || it->second.last)
      return;
    if (it->second.id != 0 && !it->second.dismissed)
      server_.close(it->second.id);
    if (answered) {
      // The answered warning is over. The event comes back, if at all, as a new
      // warning, whose "metadatanotified" may fall in the same second as this one.
      notices_.erase(it);
      return;
    }
    it->second.id = 0;
    it->second.dismissed = true;
  };
  if (::getuid() == 0)
    send(true);
  else
    checkRight(follower_.bus(), client::rightName(request), std::move(send));
}

void Agent::onClosed(std::uint32_t id) {
  for (auto& [uniqueid, notice] : notices_)
    if (notice.id == id && id != 0) {
      notice.id = 0;
      notice.dismissed = !notice.last;
    }
}

// A new server knows none of the notices: each one still open is shown again.
void Agent::onServerStarted() {
  for (auto& [uniqueid, notice] : notices_) {
    if (notice.last || notice.dismissed) {
      notice.id = 0;
      continue;
    }
    show(notice, 0);
  }
}

// One request on the connection, opened again once when the daemon closed it
// (it restarted, say).
plist::Value Agent::call(std::string_view request, const plist::Value& parameter) {
  std::string error;
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (!connection_ && (connection_ = client::Connection::open(client::socketPath(), error)))
      connection_->setTimeout(kReplyTimeoutSeconds);
    if (!connection_)
      break;
    const plist::Value reply = connection_->call(
        client::makeRequest(request, client::ownAuthorization(), parameter), error);
    if (reply)
      return reply;
    connection_.reset();
  }
  complain(error);
  return {};
}

}  // namespace nightjar::agent
