// MemberTree: the sequence of records behind an event array, with insertion,
// removal and position lookups in logarithmic time.
//
// An implicit treap: a binary tree in sequence order whose nodes count the
// nodes below them, balanced in expectation by pseudo-random priorities (a
// fixed seed, so runs are reproducible; the order never depends on them). A
// node keeps its address for as long as it is held, so an index may point at
// it; its position is found by walking up to the root.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "plist/value.h"

namespace nightjar::model {

class MemberTree {
 public:
  struct Node {
    Node(plist::Value member, std::uint32_t rank) : value(std::move(member)), priority(rank) {}

    plist::Value value;
    // The string identifier inside `value`, or nullptr; kept by the owner.
    const std::string* id = nullptr;

   private:
    friend class MemberTree;
    Node* left = nullptr;
    Node* right = nullptr;
    Node* parent = nullptr;
    std::uint32_t priority;
    int count = 1;  // nodes in this subtree, this one included
  };

  MemberTree() = default;
  MemberTree(const MemberTree&) = delete;
  MemberTree& operator=(const MemberTree&) = delete;
  ~MemberTree() { clear(); }

  int size() const { return countOf(root_); }
  // The node at `index`, or nullptr when the index is out of range.
  Node* nodeAt(int index) const;
  int indexOf(const Node* node) const;
  // A new node holding `value` at `index` (0 to size()).
  Node* insert(int index, plist::Value value);
  // Takes `node` out, keeping it: the tree is then the sequence without it
  // until the node is put back at `index` of that sequence.
  void takeOut(Node* node);
  void putBack(Node* node, int index);
  void erase(Node* node);
  void clear();

  // The first index at which predicate(value) turns false, for a predicate
  // that is true on a prefix of the sequence and false after it.
  template <typename Predicate>
  int partitionPoint(Predicate predicate) const {
    int index = 0;
    for (const Node* node = root_; node != nullptr;) {
      if (predicate(node->value)) {
        index += countOf(node->left) + 1;
        node = node->right;
      } else {
        node = node->left;
      }
    }
    return index;
  }

  // Calls visit(node) for every node in sequence order.
  template <typename Visit>
  void forEach(Visit visit) const {
    for (Node* node = leftmost(root_); node != nullptr; node = successor(node)) {
      visit(*node);
    }
  }

 private:
  struct Halves {
    Node* front;
    Node* back;
  };

  static int countOf(const Node* node) { return node == nullptr ? 0 : node->count; }
  static void adopt(Node* node);
  static Halves split(Node* tree, int frontCount);
  static Node* merge(Node* front, Node* back);
  static Node* leftmost(Node* node);
  static Node* successor(Node* node);

  std::uint32_t nextPriority();

  Node* root_ = nullptr;
  std::uint32_t seed_ = 0x9E3779B9u;
};

}  // namespace nightjar::model
