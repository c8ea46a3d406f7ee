#include "platform/linux/logind_bus.h"

#include <fcntl.h>
#include <unistd.h>

#include <memory>

namespace nightjar::platform::linux_adapter::logind {
namespace {

constexpr char kWho[] = "nightjard";

struct MessageUnref {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using MessagePtr = std::unique_ptr<sd_bus_message, MessageUnref>;

MessagePtr newInhibitCall(sd_bus* bus, const InhibitRequest& request) {
  sd_bus_message* raw = nullptr;
  if (sd_bus_message_new_method_call(bus, &raw, kService, kManagerPath, kManagerInterface,
                                     "Inhibit") < 0) {
    return nullptr;
  }
  MessagePtr call(raw);
  if (sd_bus_message_append(call.get(), "ssss", request.what, kWho, request.why, request.mode) <
      0) {
    return nullptr;
  }
  return call;
}

// The reply's descriptor belongs to the message, so the lock keeps a copy.
InhibitorLock lockFromReply(sd_bus_message* reply) {
  if (reply == nullptr || sd_bus_message_is_method_error(reply, nullptr) ||
      sd_bus_message_has_signature(reply, "h") <= 0) {
    return {};
  }
  int fd = -1;
  if (sd_bus_message_read(reply, "h", &fd) < 0)
    return {};
  return InhibitorLock(fcntl(fd, F_DUPFD_CLOEXEC, 3));
}

using DoneBox = std::function<void(InhibitorLock)>;

int onInhibitReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
  (*static_cast<DoneBox*>(userdata))(lockFromReply(reply));
  return 0;
}

void deleteDoneBox(void* userdata) {
  delete static_cast<DoneBox*>(userdata);
}

}  // namespace

InhibitorLock& InhibitorLock::operator=(InhibitorLock&& other) noexcept {
  if (this != &other) {
    release();
    fd_ = other.fd_;
    other.fd_ = -1;
  }
  return *this;
}

void InhibitorLock::release() {
  if (fd_ >= 0)
    close(fd_);
  fd_ = -1;
}

bool isBroadcast(sd_bus_message* signal) {
  return sd_bus_message_get_destination(signal) == nullptr;
}

SlotPtr inhibitLater(sd_bus* bus, const InhibitRequest& request,
                     std::function<void(InhibitorLock)> done) {
  MessagePtr call = newInhibitCall(bus, request);
  if (call == nullptr)
    return nullptr;
  auto box = std::make_unique<DoneBox>(std::move(done));
  sd_bus_slot* slot = nullptr;
  // Time-out 0: the bus's default for method calls.
  if (sd_bus_call_async(bus, &slot, call.get(), onInhibitReply, box.get(), 0) < 0)
    return nullptr;
  sd_bus_slot_set_destroy_callback(slot, deleteDoneBox);
  box.release();
  return SlotPtr(slot);
}

}  // namespace nightjar::platform::linux_adapter::logind
