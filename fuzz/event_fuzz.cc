// Feeds arbitrary XML property lists through the reader into the validator and
// the event containers. Whatever the input, nothing may crash, and the
// validator's verdict must agree with an independent statement of the event
// schema: an invalid event is never accepted, a valid one never refused.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "logging/logging.h"
#include "model/event.h"
#include "model/event_list.h"
#include "model/event_queue.h"
#include "model/validation.h"
#include "plist/xml.h"

namespace {

using nightjar::plist::Value;
namespace model = nightjar::model;

class NullSink : public nightjar::logging::LogSink {
 public:
  void write(int, std::string_view) override {}
};

bool isText(const Value& value) {
  const std::string* text = value.asString();
  if (text == nullptr) {
    return false;
  }
  const std::size_t length = nightjar::plist::utf16Length(*text);
  return length >= 1 && length <= 255;
}

bool isWordOf(const Value& value, std::initializer_list<std::string_view> words) {
  const std::string* text = value.asString();
  if (text == nullptr) {
    return false;
  }
  for (std::string_view word : words) {
    if (*text == word) {
      return true;
    }
  }
  return false;
}

// A whole number in [INT32_MIN, 86400], held as an integer or as a real.
bool isSeconds(const Value& value) {
  constexpr double kLowest = std::numeric_limits<std::int32_t>::min();
  if (std::optional<std::int64_t> integer = value.asInteger()) {
    return *integer >= static_cast<std::int64_t>(kLowest) && *integer <= 86400;
  }
  if (!value.isReal()) {
    return false;
  }
  const double real = *value.numberAsDouble();
  return std::isfinite(real) && std::floor(real) == real && real >= kLowest && real <= 86400;
}

bool isDays(const Value& value) {
  const nightjar::plist::Array* days = value.asArray();
  if (days == nullptr || days->empty() || days->size() > 7) {
    return false;
  }
  std::set<std::string> seen;
  for (const Value& day : *days) {
    if (!isWordOf(day,
                  {"saturday", "sunday", "monday", "tuesday", "wednesday", "thursday", "friday"}) ||
        !seen.insert(*day.asString()).second) {
      return false;
    }
  }
  return true;
}

bool isTrigger(const Value& trigger) {
  const Value type = trigger.get("type");
  if (!trigger.isDictionary() || !isWordOf(type, {"once", "daily", "inactive"})) {
    return false;
  }
  if (*type.asString() == "once") {
    return trigger.get("date").isDate();
  }
  if (*type.asString() == "daily") {
    return isSeconds(trigger.get("secondsfrommidnight")) && isDays(trigger.get("days"));
  }
  return isSeconds(trigger.get("secondsofinactivity"));
}

bool isEvent(const Value& event) {
  return event.isDictionary() && isText(event.get("uniqueid")) && isText(event.get("name")) &&
         event.get("enabled").isBoolean() && isTrigger(event.get("trigger")) &&
         event.get("action").isDictionary() &&
         isWordOf(event.get("action").get("type"), {"start up or wake", "wake", "sleep", "shutdown",
                                                    "logout", "restart", "fast user switch"});
}

void checkVerdict(const Value& value) {
  if (model::validateEvent(value).isNone() != isEvent(value)) {
    std::abort();
  }
}

std::weak_ordering byName(const Value& a, const Value& b, void*) {
  return model::compareEventsByKey(a, b, "name");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static NullSink sink;
  static const bool ready = (nightjar::logging::setLogSink(&sink), model::eventListSetUp(), true);
  (void)ready;
  const Value value =
      nightjar::plist::parseXml(std::string_view(reinterpret_cast<const char*>(data), size));
  if (value.isNone()) {
    return 0;
  }
  model::EventList* list = model::eventListGet();
  auto queue = model::eventQueueCreate(byName, nullptr);
  checkVerdict(value);
  if (model::eventListStore(list, value) >= 0 && !isEvent(value)) {
    std::abort();
  }
  if (const nightjar::plist::Array* members = value.asArray()) {
    for (const Value& member : *members) {
      checkVerdict(member);
      model::eventListStore(list, member);
      model::eventQueueStore(queue.get(), member);
    }
    model::eventQueueReplaceAll(queue.get(), value);
    model::eventQueueStore(queue.get(), value.at(0));
    model::eventListReplaceAll(list, value);
    model::eventListCopyPublic(list);
  }
  model::eventListRemoveAll(list);
  model::eventQueueRemoveAll(queue.get());
  return 0;
}
