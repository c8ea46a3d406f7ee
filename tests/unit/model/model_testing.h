// Shared helpers of the model tests: terse value builders, valid events, a
// recording log sink and a recorder of local-center posts.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/logging.h"
#include "plist/describe.h"
#include "plist/value.h"
#include "runloop/notification_center.h"

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

// Captures log lines for its lifetime.
struct RecordingLog : core::LogSink {
  RecordingLog() { core::setLogSink(this); }
  ~RecordingLog() override { core::setLogSink(nullptr); }
  void write(int priority, std::string_view line) override { lines.emplace_back(priority, line); }
  std::vector<std::pair<int, std::string>> lines;
};

struct Post {
  std::string name;
  Value userInfo;
  bool operator==(const Post&) const = default;
};
inline void PrintTo(const Post& post, std::ostream* out) {
  *out << post.name << " " << plist::describeValue(post.userInfo);
}

// Records every post on the local center whose object is `object` (not null).
struct PostRecorder {
  explicit PostRecorder(const void* object) {
    runloop::localCenter().addObserver(
        this,
        [this](std::string_view name, auto, const Value& info) {
          posts.push_back({std::string(name), info});
        },
        std::nullopt, object);
  }
  ~PostRecorder() { runloop::localCenter().removeObserver(this); }
  std::vector<Post> posts;
};

}  // namespace nightjar::model::testing
