#include "warning_text.h"

#include <time.h>

#include <array>
#include <utility>

namespace nightjar::agent {
namespace {

constexpr std::array<std::pair<std::string_view, std::string_view>, 7> kWords = {{
    {"shutdown", "Shutdown"},
    {"restart", "Restart"},
    {"logout", "Log out"},
    {"sleep", "Sleep"},
    {"wake", "Wake"},
    {"start up or wake", "Start up or wake"},
    {"fast user switch", "Switch user"},
}};

// "1 hour", "10 minutes": a count and its unit, plural when it is not one.
std::string counted(long count, std::string_view unit) {
  std::string text = std::to_string(count) + ' ' + std::string(unit);
  return count == 1 ? text : text + 's';
}

// Hours, minutes and seconds that are not zero, joined by blanks.
std::string spoken(long seconds) {
  std::string text;
  const std::array<std::pair<long, std::string_view>, 3> parts = {
      {{seconds / 3600, "hour"}, {seconds / 60 % 60, "minute"}, {seconds % 60, "second"}}};
  for (const auto& [count, unit] : parts) {
    if (count == 0)
      continue;
    if (!text.empty())
      text += ' ';
    text += counted(count, unit);
  }
  return text;
}

}  // namespace

std::string actionWords(std::string_view actionType) {
  for (const auto& [type, words] : kWords)
    if (type == actionType)
      return std::string(words);
  return std::string(actionType);
}

bool isCritical(std::string_view actionType) {
  return actionType == "shutdown" || actionType == "restart" || actionType == "logout";
}

std::string warningSummary(std::string_view actionType, long long when, long long now) {
  const time_t at = static_cast<time_t>(when);
  const time_t current = static_cast<time_t>(now);
  tm local{};
  tm today{};
  localtime_r(&at, &local);
  localtime_r(&current, &today);
  const bool sameDay = local.tm_year == today.tm_year && local.tm_yday == today.tm_yday;
  char clock[32];
  strftime(clock, sizeof clock, sameDay ? "%H:%M" : "%a %H:%M", &local);
  return actionWords(actionType) + " at " + clock;
}

std::string warningBody(std::string_view name, long long secondsLeft) {
  const std::string prefix = std::string(name) + ": ";
  if (secondsLeft < 60)
    return prefix + "less than a minute left";
  const long minutes = static_cast<long>((secondsLeft + 59) / 60);
  return prefix + spoken(minutes * 60) + " left";
}

std::string finalSummary(std::string_view actionType) {
  return actionWords(actionType) + " now";
}

std::string delayLabel(long seconds) {
  return "Delay " + spoken(seconds);
}

}  // namespace nightjar::agent
