#include "model/event_kinds.h"

#include <cstddef>

namespace nightjar::model {
namespace {

static_assert(kTriggerKindNames.size() == static_cast<std::size_t>(TriggerKind::Inactive) + 1);
static_assert(kActionKindNames.size() == static_cast<std::size_t>(ActionKind::FastUserSwitch) + 1);
static_assert(kWeekdayNames.size() == static_cast<std::size_t>(Weekday::Saturday) + 1);

template <typename Enum, std::size_t N>
std::optional<Enum> lookUp(const std::array<std::string_view, N>& names, std::string_view name) {
  for (std::size_t i = 0; i < N; ++i) {
    if (names[i] == name) {
      return static_cast<Enum>(i);
    }
  }
  return std::nullopt;
}

}  // namespace

std::optional<TriggerKind> triggerKindNamed(std::string_view name) {
  return lookUp<TriggerKind>(kTriggerKindNames, name);
}

std::optional<ActionKind> actionKindNamed(std::string_view name) {
  return lookUp<ActionKind>(kActionKindNames, name);
}

std::optional<Weekday> weekdayNamed(std::string_view name) {
  return lookUp<Weekday>(kWeekdayNames, name);
}

std::string_view triggerKindName(TriggerKind kind) {
  return kTriggerKindNames[static_cast<std::size_t>(kind)];
}

std::string_view actionKindName(ActionKind kind) {
  return kActionKindNames[static_cast<std::size_t>(kind)];
}

std::string_view weekdayName(Weekday day) {
  return kWeekdayNames[static_cast<std::size_t>(day)];
}

}  // namespace nightjar::model
