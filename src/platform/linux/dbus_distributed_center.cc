#include "platform/linux/dbus_distributed_center.h"

#include <string>

#include "plist/xml.h"

namespace nightjar::platform::linux_adapter {
namespace {

constexpr char kPath[] = "/quillon/nightjar";
constexpr char kInterface[] = "quillon.nightjar";
constexpr char kMember[] = "Notification";

class DbusDistributedCenter final : public DistributedCenter {
 public:
  explicit DbusDistributedCenter(SystemBusConnection& bus) : bus_(bus) {}

  void post(std::string_view name, const plist::Value& userInfo) override {
    const std::string nameText(name);
    const std::string info = plist::writeXml(userInfo);
    sd_bus* bus = bus_.bus();
    if (bus == nullptr)
      return;  // lost with the bus, like every broadcast nobody could receive
    // Queued on the connection; the run loop writes it out. Best effort.
    sd_bus_emit_signal(bus, kPath, kInterface, kMember, "ss", nameText.c_str(), info.c_str());
  }

 private:
  SystemBusConnection& bus_;
};

}  // namespace

std::unique_ptr<DistributedCenter> makeDbusDistributedCenter(SystemBusConnection* bus) {
  if (bus == nullptr)
    return nullptr;
  return std::make_unique<DbusDistributedCenter>(*bus);
}

}  // namespace nightjar::platform::linux_adapter
