// The XML forms of the records a document holds, kept between writes of the
// same document so that a write serialises only what changed.
//
// Values are immutable, so a node written once is written again as the same
// bytes at the same depth. The cache keeps, per node and depth, the form of
// every dictionary or array that is an element of an array and not inside
// another such element (the records of a list), and holds a reference to the node, so that no other
// node can take its address while the form is kept. A write keeps only the forms it used: the cache
// follows the document and never grows past one document's records.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <unordered_map>

#include "plist/value.h"

namespace nightjar::plist {

class XmlWriteCache {
 public:
  // The kept form of `value` at `depth`, or nullptr; a form found is kept for
  // the next write too.
  const std::string* find(const Value& value, std::size_t depth);
  // Keeps `bytes` as the form of `value` at `depth`; answers the kept bytes.
  const std::string& keep(const Value& value, std::size_t depth, std::string bytes);
  // Ends a write of `documentBytes` bytes.
  void endWrite(std::size_t documentBytes);
  // The size of the last document written, to reserve the next one at once.
  std::size_t lastDocumentBytes() const { return lastDocumentBytes_; }
  // The forms kept.
  std::size_t size() const { return kept_.size(); }

 private:
  struct Key {
    const void* node;
    std::size_t depth;
    bool operator==(const Key&) const = default;
  };
  struct KeyHash {
    std::size_t operator()(const Key& key) const {
      return std::hash<const void*>()(key.node) ^ (key.depth * 0x9e3779b97f4a7c15ULL);
    }
  };
  struct Form {
    Value node;  // keeps the node, and so its address, alive
    std::string bytes;
    unsigned write = 0;  // the last write that used the form
  };

  std::unordered_map<Key, Form, KeyHash> kept_;
  unsigned write_ = 0;    // the write under way
  std::size_t used_ = 0;  // forms the write under way used
  std::size_t lastDocumentBytes_ = 0;
};

}  // namespace nightjar::plist
