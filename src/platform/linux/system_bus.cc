#include "platform/linux/system_bus.h"

#include <algorithm>

#include "logging/logging.h"

namespace nightjar::platform::linux_adapter {
namespace {

constexpr std::chrono::seconds kFirstBackOff{1};
constexpr std::chrono::seconds kLongestBackOff{30};
constexpr std::uint64_t kLongestBackOffUsec = 30'000'000;
// Asked of the bus daemon itself, which answers at once unless it is gone.
constexpr std::uint64_t kOwnerQueryTimeoutUsec = 2'000'000;

BusPtr openSystemBus(sd_event* event) {
  sd_bus* raw = nullptr;
  // sd_bus_open_system honours DBUS_SYSTEM_BUS_ADDRESS itself.
  if (sd_bus_open_system(&raw) < 0)
    return nullptr;
  BusPtr bus(raw);
  if (sd_bus_attach_event(bus.get(), event, SD_EVENT_PRIORITY_NORMAL) < 0)
    return nullptr;
  // The daemon broadcasts after its loop has exited ("socket.closed"), so the
  // connection must outlive the loop's exit; closing it is the owner's job.
  sd_bus_set_close_on_exit(bus.get(), 0);
  return bus;
}

bool hasOwner(sd_bus* bus, const std::string& name) {
  sd_bus_message* raw = nullptr;
  if (sd_bus_message_new_method_call(bus, &raw, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                     "org.freedesktop.DBus", "NameHasOwner") < 0) {
    return false;
  }
  sd_bus_message* reply = nullptr;
  int owned = 0;
  if (sd_bus_message_append(raw, "s", name.c_str()) >= 0 &&
      sd_bus_call(bus, raw, kOwnerQueryTimeoutUsec, nullptr, &reply) >= 0 &&
      sd_bus_message_read(reply, "b", &owned) < 0) {
    owned = 0;
  }
  sd_bus_message_unref(reply);
  sd_bus_message_unref(raw);
  return owned != 0;
}

std::uint64_t monotonicUsec(sd_event* event) {
  std::uint64_t now = 0;
  if (event != nullptr)
    sd_event_now(event, CLOCK_MONOTONIC, &now);
  return now;
}

}  // namespace

std::unique_ptr<SystemBusConnection> SystemBusConnection::create(runloop::RunLoop& loop) {
  std::unique_ptr<SystemBusConnection> connection(new SystemBusConnection(loop.event()));
  if (!connection->connect())
    connection->retryLater();
  return connection;
}

std::unique_ptr<SystemBusConnection> SystemBusConnection::adopt(sd_bus* bus) {
  std::unique_ptr<SystemBusConnection> connection(new SystemBusConnection(nullptr));
  if (bus != nullptr)
    connection->attach(BusPtr(sd_bus_ref(bus)));
  return connection;
}

SystemBusConnection::~SystemBusConnection() {
  sd_event_source_disable_unref(retry_);
  services_.clear();
  disconnected_.reset();
}

void SystemBusConnection::watch(Client& client, const std::string& service) {
  auto [it, added] = services_.try_emplace(service);
  Service& entry = it->second;
  if (added) {
    entry.owner = this;
    entry.name = service;
    if (bus_ != nullptr)
      follow(entry);
  }
  entry.clients.push_back(&client);
  if (entry.owned)
    client.up(bus_.get());
}

void SystemBusConnection::unwatch(Client& client) {
  for (auto& [name, service] : services_)
    std::erase(service.clients, &client);
}

bool SystemBusConnection::connect() {
  BusPtr bus = openSystemBus(event_);
  return bus != nullptr && attach(std::move(bus));
}

// A lost connection ends in sd-bus's local Disconnected signal, once every
// call still waiting on it has been answered with an error.
bool SystemBusConnection::attach(BusPtr bus) {
  sd_bus_slot* slot = nullptr;
  if (sd_bus_match_signal(bus.get(), &slot, "org.freedesktop.DBus.Local", nullptr,
                          "org.freedesktop.DBus.Local", "Disconnected", onDisconnected, this) < 0) {
    return false;
  }
  disconnected_.reset(slot);
  bus_ = std::move(bus);
  connectedAtUsec_ = monotonicUsec(event_);
  for (auto& [name, service] : services_)
    follow(service);
  return true;
}

// Subscribes to the service's owner changes first, then asks for its owner,
// so that no change falls between the two.
void SystemBusConnection::follow(Service& service) {
  if (service.name.empty()) {
    setOwned(service, true);
    return;
  }
  const std::string rule =
      "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
      "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
      service.name + "'";
  sd_bus_slot* slot = nullptr;
  if (sd_bus_add_match(bus_.get(), &slot, rule.c_str(), onOwnerChanged, &service) >= 0)
    service.match.reset(slot);
  setOwned(service, hasOwner(bus_.get(), service.name));
}

void SystemBusConnection::setOwned(Service& service, bool owned) {
  if (service.owned == owned)
    return;
  service.owned = owned;
  // A client may unwatch another from its callback; work on a copy.
  const std::vector<Client*> clients = service.clients;
  for (Client* client : clients) {
    if (owned) {
      client->up(bus_.get());
    } else {
      client->down();
    }
  }
}

void SystemBusConnection::lose() {
  for (auto& [name, service] : services_) {
    service.match.reset();
    service.left = false;  // the bus's own loss line stands for the services'
    setOwned(service, false);
  }
  disconnected_.reset();
  lost_ = std::move(bus_);
  if (!lossLogged_) {
    logging::logMessage(LOG_WARNING, "Lost the system bus; reconnecting");
    lossLogged_ = true;
  }
  // A bus that drops each connection at once is retried ever more slowly.
  if (monotonicUsec(event_) - connectedAtUsec_ > kLongestBackOffUsec)
    backOff_ = kFirstBackOff;
  retryLater();
}

void SystemBusConnection::retryLater() {
  if (event_ == nullptr)
    return;
  sd_event_source_disable_unref(retry_);
  retry_ = nullptr;
  const auto usec = std::chrono::duration_cast<std::chrono::microseconds>(backOff_).count();
  sd_event_add_time_relative(event_, &retry_, CLOCK_MONOTONIC, static_cast<std::uint64_t>(usec), 0,
                             onRetry, this);
  backOff_ = std::min(backOff_ * 2, kLongestBackOff);
}

int SystemBusConnection::onDisconnected(sd_bus_message*, void* userdata, sd_bus_error*) {
  static_cast<SystemBusConnection*>(userdata)->lose();
  return 0;
}

// NameOwnerChanged(name, old owner, new owner). A hand-over from one owner to
// another is a loss and a return. A service that leaves is logged once, and
// its return once: the one trace of a restarted logind or polkitd.
int SystemBusConnection::onOwnerChanged(sd_bus_message* message, void* userdata, sd_bus_error*) {
  auto* service = static_cast<Service*>(userdata);
  const char* name = nullptr;
  const char* before = nullptr;
  const char* after = nullptr;
  if (sd_bus_message_read(message, "sss", &name, &before, &after) < 0 || service->name != name) {
    return 0;
  }
  if (*before != '\0')
    service->owner->setOwned(*service, false);
  if (*before != '\0' && *after == '\0' && !service->left) {
    logging::logMessage(LOG_WARNING, "%s left the system bus; following its return", name);
    service->left = true;
  }
  if (*after != '\0')
    service->owner->setOwned(*service, true);
  if (*after != '\0' && service->left) {
    logging::logMessage(LOG_NOTICE, "%s is on the system bus again", name);
    service->left = false;
  }
  return 0;
}

int SystemBusConnection::onRetry(sd_event_source*, std::uint64_t, void* userdata) {
  auto* self = static_cast<SystemBusConnection*>(userdata);
  self->lost_.reset();
  if (self->connect()) {
    if (self->lossLogged_)
      logging::logMessage(LOG_NOTICE, "Connected to the system bus again");
    self->lossLogged_ = false;
    return 0;
  }
  self->retryLater();
  return 0;
}

}  // namespace nightjar::platform::linux_adapter
