#include "client/sentences.h"

#include <array>
#include <cctype>
#include <utility>

namespace nightjar::client {
namespace {

// The daemon's messages name value kinds by their type names; a person reads
// the kind.
constexpr std::array<std::pair<std::string_view, std::string_view>, 6> kKindWords = {{
    {"Must be a CFStringRef", "must be a string"},
    {"Must be a CFBooleanRef", "must be true or false"},
    {"Must be a CFDateRef", "must be a date"},
    {"Must be a CFNumberRef", "must be a number"},
    {"Must be a CFArrayRef", "must be a list"},
    {"Must be a CFDictionaryRef", "must be a dictionary"},
}};

std::string sentence(std::string_view message) {
  for (const auto& [daemonWords, words] : kKindWords)
    if (message == daemonWords)
      return std::string(words);
  std::string text(message);
  if (!text.empty() && text.back() == '.')
    text.pop_back();
  if (!text.empty() && !(text.size() > 1 && std::isupper(static_cast<unsigned char>(text[1]))))
    text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
  return text;
}

void walk(const plist::Value& record, const std::string& path, std::vector<std::string>& lines) {
  if (const std::string* message = record.asString()) {
    lines.push_back((path.empty() ? std::string("parameter") : path) + ": " + sentence(*message));
    return;
  }
  const plist::Dictionary* members = record.asDictionary();
  if (members == nullptr)
    return;
  for (const auto& [key, value] : *members) {
    const bool itself = key == "Element" || key == "General" || key == "_Memory";
    // The request wraps an event's record in "event": the fields are the event's.
    const bool wrapper = path.empty() && key == "event" && value.isDictionary();
    walk(value, itself || wrapper ? path : (path.empty() ? key : path + "." + key), lines);
  }
}

std::string codeSentence(std::string_view request, std::int64_t code, const std::string& reason) {
  switch (code) {
    case 400:
      return "nightjard cannot do this now: " + sentence(reason);
    case 401:
      return "the request is malformed: " + sentence(reason);
    case 402:
      return "nightjard knows no object named in \"" + std::string(request) + "\"";
    case 403:
      return "nightjard knows no action \"" + std::string(request) + "\"";
    case 404:
      return "\"" + std::string(request) + "\" needs a parameter";
    case 405:
      return reason == "Invalid seconds"
                 ? "the number of seconds is not a usable number"
                 : "nightjard refused the parameter of \"" + std::string(request) + "\"";
    case 407:
      return "\"" + std::string(request) + "\" only reads and takes no parameter";
    case 500:
      return "permission denied: you do not hold the right quillon.nightjar." +
             std::string(request) + " (run as root, or authenticate through polkit)";
    default:
      return "nightjard refused the request with code " + std::to_string(code) +
             (reason.empty() ? "" : ": " + sentence(reason));
  }
}

}  // namespace

std::vector<std::string> describeValidation(const plist::Value& record) {
  std::vector<std::string> lines;
  walk(record, "", lines);
  return lines;
}

std::vector<std::string> describeFailure(std::string_view request, const plist::Value& reply) {
  if (const std::optional<std::int64_t> code = reply.get("error").asInteger()) {
    const std::string* reason = reply.get("reason").asString();
    std::vector<std::string> lines{codeSentence(request, *code, reason ? *reason : "")};
    for (std::string& line : describeValidation(reply.get("detail")))
      lines.push_back("  " + std::move(line));
    return lines;
  }
  const std::optional<std::int64_t> status = reply.get("status").asInteger();
  if (status && *status == 200)
    return {};
  if (!status)
    return {"nightjard's reply is neither a success nor an error"};
  std::vector<std::string> lines{"nightjard could not carry out \"" + std::string(request) +
                                 "\" (no such event, or nothing to do it with)"};
  // A refused list of events carries one validation record per invalid event.
  if (const plist::Array* records = reply.get("response").asArray())
    for (std::size_t i = 0; i < records->size(); ++i)
      for (std::string& line : describeValidation((*records)[i]))
        lines.push_back("  invalid event " + std::to_string(i + 1) + ": " + std::move(line));
  return lines;
}

}  // namespace nightjar::client
