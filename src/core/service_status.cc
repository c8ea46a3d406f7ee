#include "core/service_status.h"

#include <cstdio>

namespace nightjar::core {
namespace {

// Event names come from clients: the status is one line of the service
// manager's protocol, so no control character may pass, and it stays short.
constexpr std::size_t kMaxNameBytes = 64;

std::string printableName(std::string_view name) {
  std::string out;
  for (char c : name.substr(0, kMaxNameBytes)) {
    const auto byte = static_cast<unsigned char>(c);
    out += byte < 0x20 || byte == 0x7f ? ' ' : c;
  }
  // Never end inside a UTF-8 sequence cut by the bound.
  if (name.size() > kMaxNameBytes) {
    while (!out.empty() && (static_cast<unsigned char>(out.back()) & 0xC0) == 0x80)
      out.pop_back();
    if (!out.empty() && static_cast<unsigned char>(out.back()) >= 0xC0)
      out.pop_back();
  }
  return out;
}

}  // namespace

std::string serviceStatusText(int eventCount, std::string_view nextName,
                              plist::AbsoluteTime nextDate, bool hasNext, std::time_t now) {
  std::string text = std::to_string(eventCount) + (eventCount == 1 ? " event" : " events");
  if (!hasNext)
    return text;
  const auto due = static_cast<std::time_t>(nextDate + plist::kAbsoluteTimeIntervalSince1970);
  std::tm dueLocal{};
  std::tm nowLocal{};
  if (localtime_r(&due, &dueLocal) == nullptr || localtime_r(&now, &nowLocal) == nullptr)
    return text;
  char when[48];
  if (dueLocal.tm_year == nowLocal.tm_year && dueLocal.tm_yday == nowLocal.tm_yday) {
    std::snprintf(when, sizeof when, "%02d:%02d", dueLocal.tm_hour, dueLocal.tm_min);
  } else {
    std::snprintf(when, sizeof when, "%04d-%02d-%02d at %02d:%02d", dueLocal.tm_year + 1900,
                  dueLocal.tm_mon + 1, dueLocal.tm_mday, dueLocal.tm_hour, dueLocal.tm_min);
  }
  const bool today = when[2] == ':';
  text += "; next: ";
  text += printableName(nextName);
  text += today ? " at " : " on ";
  text += when;
  return text;
}

}  // namespace nightjar::core
