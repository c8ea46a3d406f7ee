// Shared helpers of the model tests: terse value builders, valid events, a
// recording log sink and a recorder of local-center posts.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fakes/notification_recorder.h"
#include "fakes/recording_log_sink.h"
#include "plist/value.h"

namespace nightjar::plist {
inline void PrintTo(const Value& value, std::ostream* out) {
  *out << describeValue(value);
}
}  // namespace nightjar::plist

namespace nightjar::model::testing {

using plist::Value;

constexpr auto S = [](std::string text) { return Value::string(std::move(text)); };
constexpr auto I = [](std::int64_t number) { return Value::integer(number); };
constexpr auto R = [](double number) { return Value::real(number); };
constexpr auto B = [](bool flag) { return Value::boolean(flag); };
constexpr auto D = [](plist::AbsoluteTime seconds) { return Value::date(seconds); };
constexpr auto A = [](plist::Array elements) { return Value::array(std::move(elements)); };
constexpr auto Dict = [](plist::Dictionary entries) {
  return Value::dictionary(std::move(entries));
};
constexpr auto element = [](std::string_view text) {
  return Dict({{"Element", S(std::string(text))}});
};

// A valid daily event named `name` (by default its identifier).
inline Value validEvent(const std::string& id, std::string name = {}) {
  return Dict({{"uniqueid", S(id)},
               {"name", S(name.empty() ? id : std::move(name))},
               {"enabled", B(true)},
               {"trigger", Dict({{"type", S("daily")},
                                 {"secondsfrommidnight", I(3600)},
                                 {"days", A({S("monday"), S("friday")})}})},
               {"action", Dict({{"type", S("sleep")}})}});
}

// A valid once event due at `date`.
inline Value onceEvent(const std::string& id, plist::AbsoluteTime date) {
  return validEvent(id).with("trigger", Dict({{"type", S("once")}, {"date", D(date)}}));
}

using RecordingLog = nightjar::testing::RecordingLogSink;
using PostRecorder = nightjar::testing::NotificationRecorder;
using nightjar::testing::Post;

}  // namespace nightjar::model::testing
