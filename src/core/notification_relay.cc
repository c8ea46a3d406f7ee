#include "core/notification_relay.h"

#include <algorithm>

#include "platform/distributed_center.h"

namespace nightjar::core {
namespace {

std::unique_ptr<NotificationRelay>& slot() {
  static std::unique_ptr<NotificationRelay> relay;
  return relay;
}

}  // namespace

bool relayCreate() {
  if (slot() != nullptr)
    return true;
  runloop::RunLoop* loop = runloop::RunLoop::current();
  if (loop == nullptr)
    return false;
  auto relay = std::make_unique<NotificationRelay>();
  NotificationRelay* raw = relay.get();
  relay->observer = loop->addObserver(runloop::PassStage::Broadcast,
                                      [raw](runloop::Activity) { relayFlush(raw); });
  if (relay->observer == nullptr)
    return false;
  slot() = std::move(relay);
  return true;
}

void relayDestroy() {
  std::unique_ptr<NotificationRelay> relay = std::move(slot());
  if (relay == nullptr)
    return;
  for (runloop::NotificationCenter* center : relay->observedCenters) {
    center->removeObserver(relay.get());
  }
  if (relay->observer != nullptr) {
    relayFlush(relay.get());
    relay->observer.reset();
  }
  relay->pending.clear();
  for (RelayCallbacks& callbacks : relay->callbacks) {
    if (callbacks.stop)
      callbacks.stop();
  }
}

NotificationRelay* relayGet() {
  return slot().get();
}

void relayQueue(NotificationRelay* relay, std::string_view name, const plist::Value&) {
  if (relay == nullptr || name.empty())
    return;
  auto& pending = relay->pending;
  if (std::find(pending.begin(), pending.end(), name) != pending.end())
    return;
  pending.emplace_back(name);
}

void relayObserve(NotificationRelay* relay, runloop::NotificationCenter* center,
                  const void* object) {
  if (relay == nullptr || center == nullptr || object == nullptr)
    return;
  center->addObserver(
      relay,
      [relay](std::string_view name, const void*, const plist::Value& userInfo) {
        relayQueue(relay, name, userInfo);
      },
      std::nullopt, object);
  auto& centers = relay->observedCenters;
  if (std::find(centers.begin(), centers.end(), center) == centers.end()) {
    centers.push_back(center);
  }
}

void relayAddCallbacks(NotificationRelay* relay, RelayCallbacks callbacks) {
  if (relay == nullptr)
    return;
  relay->callbacks.push_back(std::move(callbacks));
  if (relay->callbacks.back().start)
    relay->callbacks.back().start();
}

void relayFlush(NotificationRelay* relay) {
  if (relay == nullptr)
    return;
  // Swap first: a perform function may queue again, for the next flush.
  std::vector<std::string> pending;
  pending.swap(relay->pending);
  for (const std::string& name : pending) {
    for (const RelayCallbacks& callbacks : relay->callbacks) {
      if (callbacks.perform)
        callbacks.perform(name, plist::Value());
    }
  }
}

RelayCallbacks distributedPoster(platform::DistributedCenter* center) {
  RelayCallbacks callbacks;
  callbacks.perform = [center](std::string_view name, const plist::Value&) {
    if (center == nullptr || name.empty())
      return;
    center->post(name, plist::Value::dictionary({}));
  };
  return callbacks;
}

}  // namespace nightjar::core
