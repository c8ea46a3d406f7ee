#include "model/event_array.h"

#include <utility>

#include "logging/logging.h"
#include "model/event.h"
#include "model/validation.h"

namespace nightjar::model {
namespace {

// The identifier string inside a held record, or nullptr. It lives as long as
// the record does.
const std::string* stringIdOf(const plist::Value& member) {
  const plist::Dictionary* entries = member.asDictionary();
  if (entries == nullptr) {
    return nullptr;
  }
  const auto found = entries->find(kUniqueIdKey);
  return found == entries->end() ? nullptr : found->second.asString();
}

bool sameId(const std::string* a, const std::string* b) {
  return a == b || (a != nullptr && b != nullptr && *a == *b);
}

}  // namespace

// The index answers exactly what a linear search by property-list equality
// answers: a string equals only a string with the same bytes, so a string
// identifier can only match members whose identifier is that string, and
// while no two members share one (indexed_) that member is the first match.
// Any other identifier, or an array holding repeated identifiers, is searched
// linearly until the array is next cleared or re-sorted.

plist::Value EventArray::at(int index) const {
  if (index < 0 || index >= size()) {
    return {};
  }
  return members_[static_cast<std::size_t>(index)];
}

int EventArray::scanFor(const plist::Value& id) const {
  for (std::size_t i = 0; i < members_.size(); ++i) {
    if (eventUniqueID(members_[i]) == id) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

int EventArray::indexOf(const plist::Value& id) const {
  if (id.isNone()) {
    return -1;  // "no identifier" names no member, not the members lacking one
  }
  const std::string* text = id.asString();
  if (!indexed_ || text == nullptr) {
    return scanFor(id);
  }
  const auto found = firstAt_.find(std::string_view(*text));
  return found == firstAt_.end() ? -1 : static_cast<int>(found->second - bias_);
}

int EventArray::indexOfEqual(const plist::Value& event) const {
  // Equal records have equal identifiers, so only a member found by the
  // event's identifier can be equal to it.
  const plist::Value id = eventUniqueID(event);
  if (indexed_ && id.isString()) {
    const int index = indexOf(id);
    return index >= 0 && members_[static_cast<std::size_t>(index)] == event ? index : -1;
  }
  for (std::size_t i = 0; i < members_.size(); ++i) {
    if (eventUniqueID(members_[i]) == id && members_[i] == event) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

void EventArray::append(plist::Value event) {
  const std::string* id = stringIdOf(event);
  members_.push_back(std::move(event));
  ids_.push_back(id);
  slots_.push_back(nullptr);
  if (indexed_ && id != nullptr) {
    const auto [entry, added] =
        firstAt_.try_emplace(*id, static_cast<long>(members_.size() - 1) + bias_);
    if (added) {
      slots_.back() = &entry->second;
    } else {
      dropIndex();
    }
  }
}

void EventArray::replace(int index, plist::Value event) {
  const auto at = static_cast<std::size_t>(index);
  const std::string* id = stringIdOf(event);
  const bool keepsId = sameId(ids_[at], id);
  members_[at] = std::move(event);
  ids_[at] = id;
  if (!keepsId) {
    reindex();
  }
}

void EventArray::erase(int index) {
  const auto at = static_cast<std::size_t>(index);
  if (indexed_) {
    if (ids_[at] != nullptr) {
      firstAt_.erase(firstAt_.find(std::string_view(*ids_[at])));
    }
    shiftAfterErase(index);
  }
  members_.erase(members_.begin() + index);
  ids_.erase(ids_.begin() + index);
  slots_.erase(slots_.begin() + index);
}

// Members after `index` move one place forward. Either their entries are
// decremented, or the entries before `index` are incremented together with
// the bias: whichever touches fewer entries.
void EventArray::shiftAfterErase(int index) {
  const int count = size();
  const bool front = index < count - 1 - index;
  const int begin = front ? 0 : index + 1;
  const int end = front ? index : count;
  const long step = front ? 1 : -1;
  for (int i = begin; i < end; ++i) {
    if (long* slot = slots_[static_cast<std::size_t>(i)]) {
      *slot += step;
    }
  }
  if (front) {
    bias_ += 1;
  }
}

void EventArray::clear() {
  members_.clear();
  ids_.clear();
  reindex();
}

void EventArray::move(int from, int to) {
  const int low = std::min(from, to);
  const int high = std::max(from, to);
  const auto rotate = [&](auto& items) {
    const auto first = items.begin();
    if (from < to) {
      std::rotate(first + from, first + from + 1, first + to + 1);
    } else {
      std::rotate(first + to, first + from, first + from + 1);
    }
  };
  rotate(members_);
  rotate(ids_);
  rotate(slots_);
  for (int i = low; i <= high; ++i) {
    if (long* slot = slots_[static_cast<std::size_t>(i)]) {
      *slot = i + bias_;
    }
  }
}

void EventArray::reindex() {
  ids_.resize(members_.size());
  slots_.assign(members_.size(), nullptr);
  firstAt_.clear();
  bias_ = 0;
  indexed_ = true;
  for (std::size_t i = 0; i < members_.size(); ++i) {
    ids_[i] = stringIdOf(members_[i]);
    if (ids_[i] == nullptr) {
      continue;
    }
    const auto [entry, added] = firstAt_.try_emplace(*ids_[i], static_cast<long>(i));
    if (!added) {
      dropIndex();
      return;
    }
    slots_[i] = &entry->second;
  }
}

void EventArray::dropIndex() {
  indexed_ = false;
  firstAt_.clear();
  slots_.assign(members_.size(), nullptr);
}

int eventArrayIndexOf(const EventArray& array, const plist::Value& id) {
  return array.indexOf(id);
}

int eventArrayRemove(EventArray& array, const plist::Value& id) {
  const int index = array.indexOf(id);
  if (index >= 0) {
    array.erase(index);
  }
  return index;
}

plist::Value eventArrayFind(const EventArray& array, const plist::Value& id) {
  return array.at(array.indexOf(id));
}

StoreOutcome eventArrayStoreAt(EventArray& array, const plist::Value& event) {
  using Change = StoreOutcome::Change;
  if (validateEvent(event)) {
    logging::logValue(LOG_ERR, "Invalid event: %@", event);
    return {Change::Refused};
  }
  const plist::Value id = eventUniqueID(event);
  if (id.isNone()) {
    return {Change::Refused};
  }
  const int index = array.indexOf(id);
  if (index < 0) {
    array.append(event);
    return {Change::Added, array.size() - 1};
  }
  if (array.at(index) == event) {
    return {Change::Unchanged};
  }
  array.replace(index, event);
  return {Change::Replaced, index};
}

bool eventArrayStore(EventArray& array, const plist::Value& event) {
  return eventArrayStoreAt(array, event).changed();
}

}  // namespace nightjar::model
