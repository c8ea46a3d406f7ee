// The XML forms of the records a document holds, kept between writes of the
// same document so that a write serialises only what changed.
//
// Values are immutable, so a node written once is written again as the same
// bytes at the same depth. The cache keeps, per node and depth, the form of
// every dictionary or array that is an element of an array and not inside
// another such element (the records of a list). It holds a reference to each
// node, so that no other node can take its address while the form is kept.
// Forms a write did not use are dropped once they pass an eighth of those it
// used: the cache follows the document and never holds much more than one
// document's records.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "plist/value.h"

namespace nightjar::plist {

class XmlWriteCache {
 public:
  // The kept form of `value` at `depth`, or nullptr; a form found is kept for
  // the next write too.
  const std::string* find(const Value& value, std::size_t depth);
  // Keeps `bytes` as the form of `value` at `depth`; answers the kept bytes.
  const std::string& keep(const Value& value, std::size_t depth, std::string bytes);
  // Ends a write.
  void endWrite();
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
};

// A document as the writer hands it out without joining it: its bytes are
// those of `pieces` one after the other, views of kept forms and of `between`.
// Valid until the cache's next write.
struct XmlPieces {
  std::vector<std::string_view> pieces;
  std::deque<std::string> between;  // the bytes that are no kept form
  std::size_t size = 0;
};

// The bytes writeXml(value) answers, as pieces: the records inside arrays come
// from `cache` where it holds them; `cache` then holds this document's forms.
XmlPieces writeXmlPieces(const Value& value, XmlWriteCache& cache);

}  // namespace nightjar::plist
