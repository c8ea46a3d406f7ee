// A TimeZoneSource whose zone the test sets by hand.
#pragma once

#include <optional>
#include <string>

#include "platform/time_zone_source.h"

namespace nightjar::testing {

struct FakeTimeZoneSource final : platform::TimeZoneSource {
  std::optional<platform::TimeZone> current() override {
    ++reads;
    return zone;
  }
  std::optional<platform::TimeZone> zone;  // nullopt: the zone cannot be read
  int reads = 0;
};

inline platform::TimeZone namedZone(std::string name) {
  platform::TimeZone zone;
  zone.data = {name.begin(), name.end()};
  zone.name = std::move(name);
  return zone;
}

}  // namespace nightjar::testing
