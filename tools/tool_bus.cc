#include "tool_bus.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace nightjar::tools {
namespace {

// logind answers at once; a bus that does not answer within this is broken.
constexpr std::uint64_t kCallTimeoutUsec = 10'000'000;

}  // namespace

BusPtr openSystemBus(const char* program) {
  sd_bus* raw = nullptr;
  const int r = sd_bus_open_system(&raw);
  if (r < 0) {
    std::fprintf(stderr, "%s: cannot connect to the system bus: %s\n", program, std::strerror(-r));
    return nullptr;
  }
  sd_bus_set_method_call_timeout(raw, kCallTimeoutUsec);
  return BusPtr(raw);
}

bool serviceMissing(const sd_bus_error& error) {
  return sd_bus_error_has_names(&error, SD_BUS_ERROR_SERVICE_UNKNOWN,
                                SD_BUS_ERROR_NAME_HAS_NO_OWNER);
}

void reportFailure(const char* program, const std::string& what, const char* service,
                   const sd_bus_error& error, int r) {
  if (serviceMissing(error)) {
    std::fprintf(stderr, "%s: cannot %s: %s is not running on the system bus\n", program,
                 what.c_str(), service);
  } else if (sd_bus_error_is_set(&error)) {
    std::fprintf(stderr, "%s: cannot %s: %s (%s)\n", program, what.c_str(),
                 error.message != nullptr ? error.message : "refused", error.name);
  } else {
    std::fprintf(stderr, "%s: cannot %s: %s\n", program, what.c_str(), std::strerror(-r));
  }
}

}  // namespace nightjar::tools
