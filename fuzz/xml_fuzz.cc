// Feeds arbitrary bytes to the XML reader; whatever it accepts must survive a
// write and a second read unchanged.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "plist/xml.h"

namespace {

using nightjar::plist::Kind;
using nightjar::plist::Value;

// NaN never equals itself, so a value holding one cannot be checked by ==.
bool holdsNan(const Value& value) {
  switch (value.kind()) {
    case Kind::Real:
      return std::isnan(*value.numberAsDouble());
    case Kind::Array:
      for (const Value& element : *value.asArray()) {
        if (holdsNan(element)) {
          return true;
        }
      }
      return false;
    case Kind::Dictionary:
      for (const auto& entry : *value.asDictionary()) {
        if (holdsNan(entry.second)) {
          return true;
        }
      }
      return false;
    default:
      return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view document(reinterpret_cast<const char*>(data), size);
  const Value parsed = nightjar::plist::parseXml(document, {.maxBytes = 1 << 20, .maxDepth = 128});
  if (parsed.isNone()) {
    return 0;
  }
  const std::string written = nightjar::plist::writeXml(parsed);
  const Value reparsed = nightjar::plist::parseXml(written);
  if (reparsed.isNone() || nightjar::plist::writeXml(reparsed) != written) {
    std::abort();
  }
  if (!holdsNan(parsed) && !(reparsed == parsed)) {
    std::abort();
  }
  return 0;
}
