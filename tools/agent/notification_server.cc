#include "notification_server.h"

#include <cstring>

namespace nightjar::agent {
namespace {

constexpr char kService[] = "org.freedesktop.Notifications";
constexpr char kPath[] = "/org/freedesktop/Notifications";
constexpr char kInterface[] = "org.freedesktop.Notifications";
constexpr char kAppName[] = "nightjar-agent";
constexpr char kOwnerMatch[] =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
    "interface='org.freedesktop.DBus',member='NameOwnerChanged',"
    "arg0='org.freedesktop.Notifications'";
// The server is a local process that answers at once; a hung one must not
// hold the agent for long.
constexpr std::uint64_t kCallTimeoutUsec = 5'000'000;
constexpr std::uint8_t kUrgencyNormal = 1;
constexpr std::uint8_t kUrgencyCritical = 2;
// An action key is the agent's own short text; a longer one is not ours.
constexpr std::size_t kMaxKeyBytes = 64;

}  // namespace

NotificationServer::NotificationServer(sd_bus* session, Handlers handlers)
    : session_(session), handlers_(std::move(handlers)) {}

NotificationServer::~NotificationServer() {
  for (sd_bus_slot* slot : slots_)
    sd_bus_slot_unref(slot);
}

bool NotificationServer::subscribe() {
  sd_bus_slot* actions = nullptr;
  sd_bus_slot* closes = nullptr;
  sd_bus_slot* owners = nullptr;
  const bool ok = sd_bus_match_signal(session_, &actions, nullptr, kPath, kInterface,
                                      "ActionInvoked", onActionInvoked, this) >= 0 &&
                  sd_bus_match_signal(session_, &closes, nullptr, kPath, kInterface,
                                      "NotificationClosed", onClosed, this) >= 0 &&
                  sd_bus_add_match(session_, &owners, kOwnerMatch, onOwnerChanged, this) >= 0;
  slots_ = {actions, closes, owners};
  return ok;
}

int NotificationServer::appendNotify(sd_bus_message* call, const NoticeContent& content,
                                     std::uint32_t replaces) {
  int r = sd_bus_message_append(call, "susss", kAppName, replaces, "", content.summary.c_str(),
                                content.body.c_str());
  if (r >= 0)
    r = sd_bus_message_open_container(call, 'a', "s");
  for (const auto& [key, label] : content.actions)
    if (r >= 0)
      r = sd_bus_message_append(call, "ss", key.c_str(), label.c_str());
  if (r >= 0)
    r = sd_bus_message_close_container(call);
  if (r >= 0)
    r = sd_bus_message_append(call, "a{sv}", 1, "urgency", "y",
                              content.critical ? kUrgencyCritical : kUrgencyNormal);
  if (r >= 0)
    r = sd_bus_message_append(call, "i", content.expireMs);
  return r;
}

std::uint32_t NotificationServer::notify(const NoticeContent& content, std::uint32_t replaces) {
  sd_bus_message* call = nullptr;
  sd_bus_message* reply = nullptr;
  int r = sd_bus_message_new_method_call(session_, &call, kService, kPath, kInterface, "Notify");
  if (r >= 0)
    r = appendNotify(call, content, replaces);
  if (r >= 0)
    r = sd_bus_call(session_, call, kCallTimeoutUsec, nullptr, &reply);
  std::uint32_t id = 0;
  if (r >= 0 && sd_bus_message_read(reply, "u", &id) < 0)
    id = 0;
  sd_bus_message_unref(reply);
  sd_bus_message_unref(call);
  return id;
}

void NotificationServer::close(std::uint32_t id) {
  // A notice that is already gone is no fault: the answer does not matter.
  sd_bus_call_method_async(session_, nullptr, kService, kPath, kInterface, "CloseNotification",
                           nullptr, nullptr, "u", id);
}

int NotificationServer::onActionInvoked(sd_bus_message* message, void* self, sd_bus_error*) {
  std::uint32_t id = 0;
  const char* key = nullptr;
  if (sd_bus_message_read(message, "us", &id, &key) < 0)
    return 0;
  const std::size_t length = strnlen(key, kMaxKeyBytes + 1);
  if (length <= kMaxKeyBytes)
    static_cast<NotificationServer*>(self)->handlers_.actionInvoked(id, {key, length});
  return 0;
}

int NotificationServer::onClosed(sd_bus_message* message, void* self, sd_bus_error*) {
  std::uint32_t id = 0;
  std::uint32_t reason = 0;
  if (sd_bus_message_read(message, "uu", &id, &reason) >= 0)
    static_cast<NotificationServer*>(self)->handlers_.closed(id);
  return 0;
}

int NotificationServer::onOwnerChanged(sd_bus_message* message, void* self, sd_bus_error*) {
  const char* name = nullptr;
  const char* before = nullptr;
  const char* after = nullptr;
  if (sd_bus_message_read(message, "sss", &name, &before, &after) >= 0 && *after != '\0')
    static_cast<NotificationServer*>(self)->handlers_.serverStarted();
  return 0;
}

}  // namespace nightjar::agent
