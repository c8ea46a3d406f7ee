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
  explicit DbusDistributedCenter(sd_bus* bus) : bus_(sd_bus_ref(bus)) {}
  ~DbusDistributedCenter() override { sd_bus_unref(bus_); }

  void post(std::string_view name, const plist::Value& userInfo) override {
    const std::string nameText(name);
    const std::string info = plist::writeXml(userInfo);
    // Queued on the connection; the run loop writes it out. Best effort.
    sd_bus_emit_signal(bus_, kPath, kInterface, kMember, "ss", nameText.c_str(), info.c_str());
  }

 private:
  sd_bus* bus_;
};

}  // namespace

std::unique_ptr<DistributedCenter> makeDbusDistributedCenter(sd_bus* bus) {
  if (bus == nullptr)
    return nullptr;
  return std::make_unique<DbusDistributedCenter>(bus);
}

}  // namespace nightjar::platform::linux_adapter
