#include "plist/value.h"

#include <cassert>
#include <cmath>
#include <type_traits>
#include <utility>
#include <variant>

namespace nightjar::plist {

namespace {

// A date is kept apart from a real so that both keep their kind.
struct DateNode {
  AbsoluteTime seconds;
  bool operator==(const DateNode&) const = default;
};

}  // namespace

// The alternatives are listed in the order of `Kind`, so index() is the kind.
struct Value::Node {
  std::variant<Dictionary, Array, std::string, std::int64_t, double, bool, DateNode, Bytes> datum;
};

static_assert(std::variant_size_v<decltype(Value::Node::datum)> ==
              static_cast<std::size_t>(Kind::Data) + 1);
static_assert(std::is_same_v<std::variant_alternative_t<static_cast<std::size_t>(Kind::Date),
                                                        decltype(Value::Node::datum)>,
                             DateNode>);

namespace {

template <typename T>
std::shared_ptr<const Value::Node> makeNode(T&& datum) {
  return std::make_shared<const Value::Node>(Value::Node{std::forward<T>(datum)});
}

// Exact comparison of an integer with a real: converting the integer to double
// may round (above 2^53), so the real is checked to be integral and in range
// and then converted to an integer instead.
bool integerEqualsReal(std::int64_t integer, double real) {
  if (!std::isfinite(real) || std::trunc(real) != real) {
    return false;
  }
  // [-2^63, 2^63) is exactly the int64 range; both bounds are doubles.
  constexpr double kLow = -9223372036854775808.0;
  constexpr double kHigh = 9223372036854775808.0;
  if (real < kLow || real >= kHigh) {
    return false;
  }
  return static_cast<std::int64_t>(real) == integer;
}

}  // namespace

Value Value::string(std::string utf8) {
  return Value(makeNode(std::move(utf8)));
}
Value Value::integer(std::int64_t number) {
  return Value(makeNode(number));
}
Value Value::real(double number) {
  return Value(makeNode(number));
}
Value Value::boolean(bool flag) {
  // Two nodes serve every boolean: each event's flags cost no node of their own.
  static const Value kTrue(makeNode(true));
  static const Value kFalse(makeNode(false));
  return flag ? kTrue : kFalse;
}
Value Value::date(AbsoluteTime seconds) {
  return Value(makeNode(DateNode{seconds}));
}
Value Value::data(Bytes bytes) {
  return Value(makeNode(std::move(bytes)));
}
Value Value::array(Array elements) {
  return Value(makeNode(std::move(elements)));
}
Value Value::dictionary(Dictionary entries) {
  return Value(makeNode(std::move(entries)));
}

Kind Value::kind() const {
  assert(node_ != nullptr);
  return static_cast<Kind>(node_->datum.index());
}

bool Value::isString() const {
  return node_ && std::holds_alternative<std::string>(node_->datum);
}
bool Value::isInteger() const {
  return node_ && std::holds_alternative<std::int64_t>(node_->datum);
}
bool Value::isReal() const {
  return node_ && std::holds_alternative<double>(node_->datum);
}
bool Value::isBoolean() const {
  return node_ && std::holds_alternative<bool>(node_->datum);
}
bool Value::isDate() const {
  return node_ && std::holds_alternative<DateNode>(node_->datum);
}
bool Value::isData() const {
  return node_ && std::holds_alternative<Bytes>(node_->datum);
}
bool Value::isArray() const {
  return node_ && std::holds_alternative<Array>(node_->datum);
}
bool Value::isDictionary() const {
  return node_ && std::holds_alternative<Dictionary>(node_->datum);
}

const std::string* Value::asString() const {
  return node_ ? std::get_if<std::string>(&node_->datum) : nullptr;
}

std::optional<std::int64_t> Value::asInteger() const {
  if (const auto* number = node_ ? std::get_if<std::int64_t>(&node_->datum) : nullptr) {
    return *number;
  }
  return std::nullopt;
}

std::optional<double> Value::numberAsDouble() const {
  if (!node_) {
    return std::nullopt;
  }
  if (const auto* integer = std::get_if<std::int64_t>(&node_->datum)) {
    return static_cast<double>(*integer);
  }
  if (const auto* real = std::get_if<double>(&node_->datum)) {
    return *real;
  }
  return std::nullopt;
}

std::optional<bool> Value::asBoolean() const {
  if (const auto* flag = node_ ? std::get_if<bool>(&node_->datum) : nullptr) {
    return *flag;
  }
  return std::nullopt;
}

std::optional<AbsoluteTime> Value::asDate() const {
  if (const auto* date = node_ ? std::get_if<DateNode>(&node_->datum) : nullptr) {
    return date->seconds;
  }
  return std::nullopt;
}

const Bytes* Value::asData() const {
  return node_ ? std::get_if<Bytes>(&node_->datum) : nullptr;
}
const Array* Value::asArray() const {
  return node_ ? std::get_if<Array>(&node_->datum) : nullptr;
}
const Dictionary* Value::asDictionary() const {
  return node_ ? std::get_if<Dictionary>(&node_->datum) : nullptr;
}

Value Value::get(std::string_view key) const {
  const Dictionary* entries = asDictionary();
  if (entries == nullptr) {
    return {};
  }
  auto found = entries->find(key);
  return found == entries->end() ? Value() : found->second;
}

Value Value::at(std::size_t index) const {
  const Array* elements = asArray();
  if (elements == nullptr || index >= elements->size()) {
    return {};
  }
  return (*elements)[index];
}

std::size_t Value::count() const {
  if (const Array* elements = asArray()) {
    return elements->size();
  }
  if (const Dictionary* entries = asDictionary()) {
    return entries->size();
  }
  return 0;
}

Value Value::with(std::string_view key, Value value) const {
  const Dictionary* entries = asDictionary();
  Dictionary copy = entries ? *entries : Dictionary();
  auto found = copy.find(key);
  if (found != copy.end()) {
    found->second = std::move(value);
  } else {
    copy.emplace(std::string(key), std::move(value));
  }
  return dictionary(std::move(copy));
}

Value Value::without(std::string_view key) const {
  const Dictionary* entries = asDictionary();
  if (entries == nullptr || entries->find(key) == entries->end()) {
    return *this;
  }
  Dictionary copy = *entries;
  copy.erase(copy.find(key));
  return dictionary(std::move(copy));
}

bool operator==(const Value& a, const Value& b) {
  if (a.node_ == b.node_) {
    return true;  // same node, or both none
  }
  if (!a.node_ || !b.node_) {
    return false;
  }
  const auto& left = a.node_->datum;
  const auto& right = b.node_->datum;
  if (const auto* integer = std::get_if<std::int64_t>(&left)) {
    if (const auto* real = std::get_if<double>(&right)) {
      return integerEqualsReal(*integer, *real);
    }
  }
  if (const auto* real = std::get_if<double>(&left)) {
    if (const auto* integer = std::get_if<std::int64_t>(&right)) {
      return integerEqualsReal(*integer, *real);
    }
  }
  if (left.index() != right.index()) {
    return false;
  }
  // Same alternative: variant equality compares the members, and containers
  // recurse through this operator for their elements.
  return left == right;
}

}  // namespace nightjar::plist
