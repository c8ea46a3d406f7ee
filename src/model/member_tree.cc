#include "model/member_tree.h"

#include <utility>
#include <vector>

namespace nightjar::model {

// Recounts `node` and makes it the parent of its children.
void MemberTree::adopt(Node* node) {
  node->count = 1 + countOf(node->left) + countOf(node->right);
  if (node->left != nullptr) {
    node->left->parent = node;
  }
  if (node->right != nullptr) {
    node->right->parent = node;
  }
}

// The first `frontCount` nodes of `tree`, and the rest. Both roots come back
// without a parent.
MemberTree::Halves MemberTree::split(Node* tree, int frontCount) {
  if (tree == nullptr) {
    return {nullptr, nullptr};
  }
  tree->parent = nullptr;
  if (countOf(tree->left) >= frontCount) {
    const Halves halves = split(tree->left, frontCount);
    tree->left = halves.back;
    adopt(tree);
    return {halves.front, tree};
  }
  const Halves halves = split(tree->right, frontCount - countOf(tree->left) - 1);
  tree->right = halves.front;
  adopt(tree);
  return {tree, halves.back};
}

// The nodes of `front` followed by those of `back`.
MemberTree::Node* MemberTree::merge(Node* front, Node* back) {
  if (front == nullptr || back == nullptr) {
    Node* only = front != nullptr ? front : back;
    if (only != nullptr) {
      only->parent = nullptr;
    }
    return only;
  }
  if (front->priority > back->priority) {
    front->right = merge(front->right, back);
    adopt(front);
    front->parent = nullptr;
    return front;
  }
  back->left = merge(front, back->left);
  adopt(back);
  back->parent = nullptr;
  return back;
}

MemberTree::Node* MemberTree::leftmost(Node* node) {
  while (node != nullptr && node->left != nullptr) {
    node = node->left;
  }
  return node;
}

MemberTree::Node* MemberTree::successor(Node* node) {
  if (node->right != nullptr) {
    return leftmost(node->right);
  }
  while (node->parent != nullptr && node->parent->right == node) {
    node = node->parent;
  }
  return node->parent;
}

MemberTree::Node* MemberTree::nodeAt(int index) const {
  if (index < 0 || index >= size()) {
    return nullptr;
  }
  Node* node = root_;
  while (true) {
    const int before = countOf(node->left);
    if (index == before) {
      return node;
    }
    if (index < before) {
      node = node->left;
    } else {
      index -= before + 1;
      node = node->right;
    }
  }
}

int MemberTree::indexOf(const Node* node) const {
  int index = countOf(node->left);
  for (; node->parent != nullptr; node = node->parent) {
    if (node->parent->right == node) {
      index += countOf(node->parent->left) + 1;
    }
  }
  return index;
}

void MemberTree::putBack(Node* node, int index) {
  node->left = node->right = node->parent = nullptr;
  node->count = 1;
  const Halves halves = split(root_, index);
  root_ = merge(merge(halves.front, node), halves.back);
}

void MemberTree::takeOut(Node* node) {
  const Halves before = split(root_, indexOf(node));
  const Halves after = split(before.back, 1);
  root_ = merge(before.front, after.back);
}

MemberTree::Node* MemberTree::insert(int index, plist::Value value) {
  Node* node = new Node(std::move(value), nextPriority());
  putBack(node, index);
  return node;
}

void MemberTree::erase(Node* node) {
  takeOut(node);
  delete node;
}

void MemberTree::clear() {
  std::vector<Node*> pending;
  if (root_ != nullptr) {
    pending.push_back(root_);
  }
  while (!pending.empty()) {
    Node* node = pending.back();
    pending.pop_back();
    for (Node* child : {node->left, node->right}) {
      if (child != nullptr) {
        pending.push_back(child);
      }
    }
    delete node;
  }
  root_ = nullptr;
}

// xorshift32: cheap, and a fixed seed makes every run shape the same tree.
std::uint32_t MemberTree::nextPriority() {
  seed_ ^= seed_ << 13;
  seed_ ^= seed_ >> 17;
  seed_ ^= seed_ << 5;
  return seed_;
}

}  // namespace nightjar::model
