#include "model/event.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace nightjar::model {
namespace {

// Rank of a sort-key value's kind: only strings and dates carry an order of
// their own; an absent value sorts last.
enum class KeyRank { String, Date, Other, Absent };

// A value found under a sort key, reduced to what the order looks at. `text`
// points into the value, which must outlive the key.
struct SortKey {
  KeyRank rank = KeyRank::Absent;
  std::string_view text;
  double date = 0;
};

SortKey sortKeyOf(const plist::Value& value) {
  if (value.isNone()) {
    return {};
  }
  if (const std::string* text = value.asString()) {
    return {KeyRank::String, *text, 0};
  }
  if (std::optional<double> date = value.asDate()) {
    return {KeyRank::Date, {}, *date};
  }
  return {KeyRank::Other, {}, 0};
}

std::weak_ordering compareDates(double a, double b) {
  // NaN is placed after every other date so that the order stays transitive.
  const bool aNaN = std::isnan(a);
  const bool bNaN = std::isnan(b);
  if (aNaN != bNaN) {
    return aNaN ? std::weak_ordering::greater : std::weak_ordering::less;
  }
  if (aNaN) {
    return std::weak_ordering::equivalent;
  }
  return a < b ? std::weak_ordering::less
               : (b < a ? std::weak_ordering::greater : std::weak_ordering::equivalent);
}

std::weak_ordering compareSortKeys(const SortKey& a, const SortKey& b) {
  if (a.rank != b.rank) {
    return a.rank < b.rank ? std::weak_ordering::less : std::weak_ordering::greater;
  }
  if (a.rank == KeyRank::String) {
    const int order = plist::compareUtf16(a.text, b.text);
    return order < 0 ? std::weak_ordering::less
                     : (order > 0 ? std::weak_ordering::greater : std::weak_ordering::equivalent);
  }
  if (a.rank == KeyRank::Date) {
    return compareDates(a.date, b.date);
  }
  return std::weak_ordering::equivalent;
}

bool isPrivateKey(std::string_view key) {
  return key.starts_with(kPrivateKeyPrefix);
}

}  // namespace

plist::Value eventUniqueID(const plist::Value& event) {
  return event.get(kUniqueIdKey);
}

bool eventIsEnabled(const plist::Value& event) {
  return event.get(kEnabledKey).asBoolean().value_or(false);
}

plist::Value eventTriggerType(const plist::Value& event) {
  return event.get(kTriggerKey).get(kTypeKey);
}

plist::Value eventActionType(const plist::Value& event) {
  return event.get(kActionKey).get(kTypeKey);
}

std::weak_ordering compareEventsByKey(const plist::Value& a, const plist::Value& b,
                                      std::string_view key) {
  const plist::Value valueA = a.get(key);
  const plist::Value valueB = b.get(key);
  return compareSortKeys(sortKeyOf(valueA), sortKeyOf(valueB));
}

plist::Value publicEvent(const plist::Value& event) {
  const plist::Dictionary* members = event.asDictionary();
  if (members == nullptr) {
    return event;
  }
  // Keys are held in byte order, so the private ones form one run starting at "_".
  const auto first = members->lower_bound(kPrivateKeyPrefix);
  auto last = first;
  while (last != members->end() && isPrivateKey(last->first)) {
    ++last;
  }
  if (first == last) {
    return event;
  }
  plist::Dictionary stripped(members->begin(), first);
  stripped.insert(last, members->end());
  return plist::Value::dictionary(std::move(stripped));
}

plist::Array copyPublicEvents(const plist::Array& events, std::optional<std::string_view> sortKey) {
  if (!sortKey) {
    plist::Array copies;
    copies.reserve(events.size());
    for (const plist::Value& event : events) {
      copies.push_back(publicEvent(event));
    }
    return copies;
  }
  // Each record's key is looked up once rather than at every comparison. It
  // is read from the copy, as the sort sees it: a private key orders nothing.
  std::vector<std::pair<SortKey, plist::Value>> keyed;
  keyed.reserve(events.size());
  for (const plist::Value& event : events) {
    plist::Value copy = publicEvent(event);
    const SortKey key = sortKeyOf(copy.get(*sortKey));  // points into `copy`'s members
    keyed.emplace_back(key, std::move(copy));
  }
  std::stable_sort(keyed.begin(), keyed.end(), [](const auto& a, const auto& b) {
    return compareSortKeys(a.first, b.first) < 0;
  });
  plist::Array copies;
  copies.reserve(keyed.size());
  for (auto& entry : keyed) {
    copies.push_back(std::move(entry.second));
  }
  return copies;
}

plist::Value copyPublicEvents(const plist::Value& events, std::optional<std::string_view> sortKey) {
  const plist::Array* members = events.asArray();
  if (members == nullptr) {
    return {};
  }
  return plist::Value::array(copyPublicEvents(*members, sortKey));
}

}  // namespace nightjar::model
