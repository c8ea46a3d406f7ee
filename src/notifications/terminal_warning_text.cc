// The text of a terminal warning. The event's name and id come from whoever
// scheduled the event and end up on other people's terminals: every control
// character is replaced, so that no escape sequence reaches a terminal, and
// both are bounded.
#include <cmath>
#include <cstddef>
#include <ctime>
#include <string_view>

#include "model/event.h"
#include "model/event_kinds.h"
#include "notifications/terminal_warnings.h"
#include "runloop/clock.h"

namespace nightjar::notifications {
namespace {

constexpr std::size_t kShownLength = 128;  // bytes of a name or id shown

// What happens, as the sentence's subject and verb; nullptr when the action
// is not announced.
const char* consequence(model::ActionKind kind) {
  switch (kind) {
    case model::ActionKind::Shutdown:
      return "The system will shut down";
    case model::ActionKind::Restart:
      return "The system will restart";
    case model::ActionKind::Logout:
      return "The user at the console will be logged out";
    default:
      return nullptr;
  }
}

bool isContinuationByte(unsigned char byte) {
  return (byte & 0xC0) == 0x80;
}

// `text` without control characters (C0, DEL and C1, which UTF-8 writes as
// 0xC2 0x80..0x9F), cut at a character boundary after kShownLength bytes.
std::string printable(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool c1 = byte == 0xC2 && i + 1 < text.size() &&
                    static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
                    static_cast<unsigned char>(text[i + 1]) <= 0x9F;
    if (out.size() >= kShownLength && !isContinuationByte(byte)) {
      out += "...";
      break;
    }
    if (byte < 0x20 || byte == 0x7F || c1) {
      out += '?';
      i += c1 ? 1 : 0;
    } else {
      out += static_cast<char>(byte);
    }
  }
  return out;
}

// `word` as one shell word: as it is when it is plain, else single-quoted.
std::string shellWord(const std::string& word) {
  const bool plain = !word.empty() && word.find_first_not_of(
                                          "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                          "0123456789._-:") == std::string::npos;
  if (plain)
    return word;
  std::string quoted = "'";
  for (char c : word)
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// "Wed 2026-11-25 22:30:00 CET", in the process's time zone.
std::string localDate(plist::AbsoluteTime date) {
  const auto seconds = static_cast<std::time_t>(std::floor(runloop::toUnixSeconds(date)));
  std::tm parts{};
  char text[64] = "";
  if (localtime_r(&seconds, &parts) == nullptr ||
      std::strftime(text, sizeof text, "%a %Y-%m-%d %H:%M:%S %Z", &parts) == 0)
    return "?";
  return text;
}

// " (in 15 minutes)", " (in 60 seconds)"; nothing once the time has come.
std::string timeLeft(double seconds) {
  if (!(seconds >= 1))
    return "";
  if (seconds >= 120)
    return " (in " + std::to_string(std::lround(seconds / 60)) + " minutes)";
  return " (in " + std::to_string(std::lround(seconds)) + " seconds)";
}

const std::string* stringMember(const plist::Value& event, std::string_view key) {
  return event.get(key).asString();
}

}  // namespace

std::optional<std::string> terminalWarningText(const plist::Value& event,
                                               plist::AbsoluteTime triggerDate,
                                               plist::AbsoluteTime now) {
  const std::string* type = model::eventActionType(event).asString();
  const std::optional<model::ActionKind> kind =
      type != nullptr ? model::actionKindNamed(*type) : std::nullopt;
  const char* what = kind ? consequence(*kind) : nullptr;
  const std::string* id = stringMember(event, model::kUniqueIdKey);
  if (what == nullptr || id == nullptr)
    return std::nullopt;
  const std::string* name = stringMember(event, model::kNameKey);
  // Lines end in CR LF: a terminal in raw mode would not return the carriage.
  std::string text = "\r\nBroadcast message from nightjard (" + localDate(now) + "):\r\n\r\n";
  text +=
      std::string(what) + " at " + localDate(triggerDate) + timeLeft(triggerDate - now) + ",\r\n";
  text += "as scheduled by the event \"" + printable(name != nullptr ? *name : *id) + "\".\r\n";
  text +=
      "To put it off by 10 minutes: nightjarctl delay " + shellWord(printable(*id)) + " 10m\r\n";
  return text;
}

}  // namespace nightjar::notifications
