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

const plist::Array& EventArray::members() const {
  if (!membersBuilt_) {
    members_.reserve(static_cast<std::size_t>(size()));
    tree_.forEach([this](const MemberTree::Node& node) { members_.push_back(node.value); });
    membersBuilt_ = true;
  }
  return members_;
}

plist::Value EventArray::at(int index) const {
  const MemberTree::Node* node = tree_.nodeAt(index);
  return node == nullptr ? plist::Value() : node->value;
}

int EventArray::scanFor(const plist::Value& id) const {
  const plist::Array& all = members();
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (eventUniqueID(all[i]) == id) {
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
  return found == firstAt_.end() ? -1 : tree_.indexOf(found->second);
}

int EventArray::indexOfEqual(const plist::Value& event) const {
  // Equal records have equal identifiers, so only a member found by the
  // event's identifier can be equal to it.
  const plist::Value id = eventUniqueID(event);
  if (indexed_ && id.isString()) {
    const auto found = firstAt_.find(std::string_view(*id.asString()));
    return found != firstAt_.end() && found->second->value == event ? tree_.indexOf(found->second)
                                                                    : -1;
  }
  const plist::Array& all = members();
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (eventUniqueID(all[i]) == id && all[i] == event) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

void EventArray::append(plist::Value event) {
  changed();
  MemberTree::Node* node = tree_.insert(size(), std::move(event));
  node->id = stringIdOf(node->value);
  if (indexed_ && node->id != nullptr && !firstAt_.try_emplace(*node->id, node).second) {
    dropIndex();
  }
}

// A member that keeps its identifier keeps its entry; one that changes it
// trades its entry for the new one, which may turn out to be shared.
void EventArray::replace(int index, plist::Value event) {
  changed();
  MemberTree::Node* node = tree_.nodeAt(index);
  const std::string* id = stringIdOf(event);
  const bool keepsId = sameId(node->id, id);
  if (indexed_ && !keepsId && node->id != nullptr) {
    firstAt_.erase(firstAt_.find(std::string_view(*node->id)));
  }
  node->value = std::move(event);
  node->id = id;
  if (indexed_ && !keepsId && id != nullptr && !firstAt_.try_emplace(*id, node).second) {
    dropIndex();
  }
}

void EventArray::erase(int index) {
  changed();
  MemberTree::Node* node = tree_.nodeAt(index);
  if (indexed_ && node->id != nullptr) {
    firstAt_.erase(firstAt_.find(std::string_view(*node->id)));
  }
  tree_.erase(node);
}

void EventArray::clear() {
  assign({});
}

// Rebuilds the tree and the index from `members`, in order.
void EventArray::assign(plist::Array members) {
  changed();
  tree_.clear();
  firstAt_.clear();
  indexed_ = true;
  for (plist::Value& member : members) {
    append(std::move(member));
  }
}

void EventArray::changed() {
  if (membersBuilt_) {
    members_.clear();
    membersBuilt_ = false;
  }
}

void EventArray::dropIndex() {
  indexed_ = false;
  firstAt_.clear();
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
