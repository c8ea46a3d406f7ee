// The event array: an ordered array of event records with identity by
// "uniqueid", and the four primitives the event containers are built on.
//
// Identifiers are compared with property-list equality and the first member
// that matches wins, so a container holding two members with one identifier
// (possible only through an unchecked append) always answers the earlier one.
//
// Lookups by a string identifier go through a hash index instead of a linear
// search; the answers are the same (see event_array.cc). Edits anywhere in
// the array cost a logarithmic time (member_tree.h).
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "model/event.h"
#include "model/member_tree.h"
#include "plist/value.h"

namespace nightjar::model {

class EventArray {
 public:
  EventArray() = default;
  EventArray(const EventArray&) = delete;
  EventArray& operator=(const EventArray&) = delete;

  // The members in order, borrowed: valid until the array next changes. Built
  // on demand after a change, so a caller that only needs one member asks
  // at() instead.
  const plist::Array& members() const;
  int size() const { return tree_.size(); }
  bool empty() const { return size() == 0; }
  // The member at `index`, or none when the index is out of range.
  plist::Value at(int index) const;
  // The member at `index`, which must be in range, borrowed as members().
  const plist::Value& member(int index) const { return tree_.nodeAt(index)->value; }

  // Index of the first member whose "uniqueid" equals `id`, or -1.
  int indexOf(const plist::Value& id) const;
  // Index of the first member equal to `event` as a whole, or -1.
  int indexOfEqual(const plist::Value& event) const;

  // Unchecked edits (indexes must be in range): the primitives below decide
  // what may be stored.
  void append(plist::Value event);
  void replace(int index, plist::Value event);
  void erase(int index);
  void clear();
  // Moves the member at `from` to the index that place(others) answers, where
  // `others` is the array without that member, searchable (Others) until
  // place returns.
  class Others {
   public:
    explicit Others(const MemberTree& tree) : tree_(tree) {}
    // As MemberTree::partitionPoint.
    template <typename Predicate>
    int partitionPoint(Predicate predicate) const {
      return tree_.partitionPoint(predicate);
    }
    const plist::Value& member(int index) const { return tree_.nodeAt(index)->value; }
    int size() const { return tree_.size(); }

   private:
    const MemberTree& tree_;
  };
  template <typename Place>
  void reposition(int from, Place place) {
    changed();
    MemberTree::Node* node = tree_.nodeAt(from);
    tree_.takeOut(node);
    tree_.putBack(node, place(Others(tree_)));
  }
  // Stable sort by `less`, a strict weak order on members.
  template <typename Less>
  void sort(Less less) {
    plist::Array sorted = members();
    std::stable_sort(sorted.begin(), sorted.end(), less);
    assign(std::move(sorted));
  }

 private:
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const {
      return std::hash<std::string_view>()(text);
    }
  };

  int scanFor(const plist::Value& id) const;
  void assign(plist::Array members);
  void changed();
  void dropIndex();

  MemberTree tree_;
  // The first member holding each string identifier, while indexed_. Nodes
  // keep their addresses, so a member moving never touches this map.
  std::unordered_map<std::string, MemberTree::Node*, Hash, std::equal_to<>> firstAt_;
  // False while two members share a string identifier: lookups then scan.
  bool indexed_ = true;
  // members() as last built; emptied by any change.
  mutable plist::Array members_;
  mutable bool membersBuilt_ = true;
};

// Index of the first member whose "uniqueid" equals `id`, or -1.
int eventArrayIndexOf(const EventArray& array, const plist::Value& id);
// Removes that member; answers its former index, or -1 when there was none.
int eventArrayRemove(EventArray& array, const plist::Value& id);
// That member (the held record itself), or none.
plist::Value eventArrayFind(const EventArray& array, const plist::Value& id);

// What a store did, and where the stored member now is.
struct StoreOutcome {
  enum class Change { Refused, Unchanged, Added, Replaced };
  Change change = Change::Refused;
  int index = -1;  // the stored member's index when added or replaced, else -1

  bool changed() const { return change == Change::Added || change == Change::Replaced; }
};

// Validated add-or-replace. An invalid event is refused with the error line
// "Invalid event: %@". A held member with the event's identifier is replaced
// in its place unless it equals the event (then nothing changes); an event
// with a new identifier is appended.
StoreOutcome eventArrayStoreAt(EventArray& array, const plist::Value& event);
// As eventArrayStoreAt; true when the array changed.
bool eventArrayStore(EventArray& array, const plist::Value& event);

// Empties `array` one member at a time, first member first, through
// `removeById` (the container's own remove, which posts); then clears what is
// left silently: members without an identifier, and the rest once an
// identifier finds nothing (one unequal to itself), rather than spinning on it.
template <typename RemoveById>
void eventArrayRemoveEach(EventArray& array, RemoveById removeById) {
  while (!array.empty()) {
    const plist::Value id = eventUniqueID(array.at(0));
    if (id.isNone() || removeById(id) < 0) {
      break;
    }
  }
  array.clear();
}

}  // namespace nightjar::model
