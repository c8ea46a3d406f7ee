// The property-list value: every datum of the daemon, its files and its wire.
//
// A Value is a small handle to an immutable, reference-counted node. Copying a
// handle shares the node; a changed value is built as a new node (see the
// `with`/`without` builders and the Array/Dictionary constructors). A
// default-constructed Value is "none": no value at all, distinct from every
// kind below.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace nightjar::plist {

// Seconds since 2001-01-01 00:00:00 UTC.
using AbsoluteTime = double;

// Seconds between the Unix epoch and 2001-01-01 00:00:00 UTC.
inline constexpr double kAbsoluteTimeIntervalSince1970 = 978307200.0;

enum class Kind { Dictionary, Array, String, Integer, Real, Boolean, Date, Data };

class Value;
using Array = std::vector<Value>;
// Keys ordered by byte (UTF-8 code point) order, so descriptions and files are deterministic.
using Dictionary = std::map<std::string, Value, std::less<>>;
using Bytes = std::vector<std::uint8_t>;

class Value {
 public:
  Value() = default;  // none

  static Value string(std::string utf8);
  static Value integer(std::int64_t number);
  static Value real(double number);
  static Value boolean(bool flag);
  static Value date(AbsoluteTime seconds);
  static Value data(Bytes bytes);
  static Value array(Array elements);
  static Value dictionary(Dictionary entries);

  bool isNone() const { return node_ == nullptr; }
  explicit operator bool() const { return node_ != nullptr; }
  // The kind of a value that is not none. Calling it on none is a bug.
  Kind kind() const;

  bool isString() const;
  bool isInteger() const;
  bool isReal() const;
  bool isNumber() const { return isInteger() || isReal(); }
  bool isBoolean() const;
  bool isDate() const;
  bool isData() const;
  bool isArray() const;
  bool isDictionary() const;

  // Typed views; each answers nullptr / nullopt when the value is of another kind.
  const std::string* asString() const;
  // Integer numbers exactly; reals are not converted (see numberAsDouble).
  std::optional<std::int64_t> asInteger() const;
  // Any number as a double.
  std::optional<double> numberAsDouble() const;
  std::optional<bool> asBoolean() const;
  std::optional<AbsoluteTime> asDate() const;
  const Bytes* asData() const;
  const Array* asArray() const;
  const Dictionary* asDictionary() const;

  // Dictionary member, or none when this is not a dictionary or lacks the key.
  Value get(std::string_view key) const;
  // Array element, or none when this is not an array or the index is out of range.
  Value at(std::size_t index) const;
  // Element count of an array or dictionary; 0 for every other kind and for none.
  std::size_t count() const;

  // Changed copies of a dictionary. On a value that is not a dictionary, `with`
  // answers a one-entry dictionary and `without` answers the value unchanged.
  Value with(std::string_view key, Value value) const;
  Value without(std::string_view key) const;

  // Deep equality. Numbers compare by numeric value (integer 3 equals real 3.0);
  // none equals only none.
  friend bool operator==(const Value& a, const Value& b);

  // The node's address: the identity of a shared value (same node, same value).
  const void* identity() const { return node_.get(); }

  struct Node;

 private:
  explicit Value(std::shared_ptr<const Node> node) : node_(std::move(node)) {}
  std::shared_ptr<const Node> node_;
};

// Length of a UTF-8 string in UTF-16 code units: a character outside the basic
// plane counts 2. Invalid UTF-8 bytes count one unit each.
std::size_t utf16Length(std::string_view utf8);

// Orders two UTF-8 strings as their UTF-16 forms compare, code unit by code
// unit: negative, zero or positive.
int compareUtf16(std::string_view a, std::string_view b);

}  // namespace nightjar::plist
