#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "plist/base64.h"
#include "plist/scalar_text.h"
#include "plist/xml.h"
#include "plist/xml_toolkit.h"

namespace nightjar::plist {

namespace {

enum class Element { Plist, Dict, Array, Key, String, Integer, Real, True, False, Date, Data };

struct ElementName {
  std::string_view name;
  Element element;
};

constexpr ElementName kElementNames[] = {
    {"plist", Element::Plist}, {"dict", Element::Dict},     {"array", Element::Array},
    {"key", Element::Key},     {"string", Element::String}, {"integer", Element::Integer},
    {"real", Element::Real},   {"true", Element::True},     {"false", Element::False},
    {"date", Element::Date},   {"data", Element::Data},
};
static_assert(std::size(kElementNames) == static_cast<std::size_t>(Element::Data) + 1);

constexpr std::string_view kPublicId = "-//Apple//DTD PLIST 1.0//EN";

std::optional<Element> elementNamed(std::string_view name) {
  for (const ElementName& entry : kElementNames) {
    if (entry.name == name) {
      return entry.element;
    }
  }
  return std::nullopt;
}

bool isContainer(Element element) {
  return element == Element::Dict || element == Element::Array;
}

bool isXmlSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isXmlSpace(text.front())) {
    text.remove_prefix(1);
  }
  while (!text.empty() && isXmlSpace(text.back())) {
    text.remove_suffix(1);
  }
  return text;
}

// One open element and what has been collected inside it so far.
struct Frame {
  Element element;
  Array elements;                         // array
  Dictionary entries;                     // dict
  std::optional<std::string> pendingKey;  // dict: a key still waiting for its value
  Value value;                            // plist: its one value
  std::string text;                       // leaves
};

// Whether `parent` may hold a `child` element in its current state.
bool acceptsChild(const Frame& parent, Element child) {
  if (child == Element::Plist) {
    return false;
  }
  switch (parent.element) {
    case Element::Plist:
      return child != Element::Key && parent.value.isNone();
    case Element::Array:
      return child != Element::Key;
    case Element::Dict:
      return (child == Element::Key) != parent.pendingKey.has_value();
    default:
      return false;  // leaves hold text only
  }
}

// The value of a closed leaf element, or none when its text is malformed.
Value leafValue(const Frame& leaf) {
  switch (leaf.element) {
    case Element::String:
      return Value::string(leaf.text);
    case Element::Integer:
      if (auto number = parseIntegerText(trimmed(leaf.text))) {
        return Value::integer(*number);
      }
      return {};
    case Element::Real:
      if (auto number = parseRealText(trimmed(leaf.text))) {
        return Value::real(*number);
      }
      return {};
    case Element::True:
      return Value::boolean(true);
    case Element::False:
      return Value::boolean(false);
    case Element::Date:
      if (auto date = parseDateText(trimmed(leaf.text))) {
        return Value::date(*date);
      }
      return {};
    case Element::Data:
      if (auto bytes = decodeBase64(leaf.text)) {
        return Value::data(std::move(*bytes));
      }
      return {};
    default:
      return {};
  }
}

// Builds a value from the elements the bounded parser hands over; any fault
// answers false, which fails the parse.
class PlistReader : public XmlHandler {
 public:
  explicit PlistReader(const XmlLimits& limits) : limits_(limits) {}

  Value read(std::string_view document) {
    // The containers' own depth limit is checked below; around them there is
    // only the root and one leaf.
    const XmlRules rules{"plist", kPublicId, limits_.maxBytes, limits_.maxDepth + 2};
    return parseXmlDocument(document, rules, *this) ? result_ : Value();
  }

 private:
  bool startElement(std::string_view name, const char* const* attributes, XmlSpan) override {
    const std::optional<Element> element = elementNamed(name);
    if (!element || !attributesAllowed(*element, attributes) || !openAllowed(*element)) {
      return false;
    }
    if (isContainer(*element) && ++containerDepth_ > limits_.maxDepth) {
      return false;
    }
    stack_.push_back(Frame{*element, {}, {}, {}, {}, {}});
    return true;
  }

  bool endElement(std::string_view, XmlSpan) override { return end(); }

  // Only the root carries an attribute: version="1.0", which may be absent.
  static bool attributesAllowed(Element element, const char* const* attributes) {
    if (attributes[0] == nullptr) {
      return true;
    }
    return element == Element::Plist && std::string_view(attributes[0]) == "version" &&
           std::string_view(attributes[1]) == "1.0" && attributes[2] == nullptr;
  }

  bool openAllowed(Element element) const {
    if (stack_.empty()) {
      return element == Element::Plist && !sawRoot_;
    }
    return acceptsChild(stack_.back(), element);
  }

  bool text(std::string_view text) override {
    if (stack_.empty()) {
      return true;
    }
    Frame& frame = stack_.back();
    switch (frame.element) {
      case Element::Key:
      case Element::String:
      case Element::Integer:
      case Element::Real:
      case Element::Date:
      case Element::Data:
        frame.text.append(text);
        return true;
      default:
        // Between elements only layout whitespace may appear.
        return std::all_of(text.begin(), text.end(), isXmlSpace);
    }
  }

  bool end() {
    if (stack_.empty()) {
      return true;
    }
    Frame frame = std::move(stack_.back());
    stack_.pop_back();
    switch (frame.element) {
      case Element::Plist:
        return closeRoot(std::move(frame));
      case Element::Key:
        return closeKey(std::move(frame.text));
      case Element::Dict:
        --containerDepth_;
        // A key without its value fails.
        return !frame.pendingKey && addToParent(Value::dictionary(std::move(frame.entries)));
      case Element::Array:
        --containerDepth_;
        return addToParent(Value::array(std::move(frame.elements)));
      default:
        return addToParent(leafValue(frame));
    }
  }

  bool closeRoot(Frame frame) {
    sawRoot_ = true;
    result_ = std::move(frame.value);
    return !result_.isNone();
  }

  bool closeKey(std::string key) {
    Frame& dict = stack_.back();
    if (dict.entries.find(key) != dict.entries.end()) {
      return false;  // duplicate key: neither copy is trusted
    }
    dict.pendingKey = std::move(key);
    return true;
  }

  bool addToParent(Value value) {
    if (value.isNone()) {
      return false;
    }
    Frame& parent = stack_.back();
    switch (parent.element) {
      case Element::Plist:
        parent.value = std::move(value);
        break;
      case Element::Array:
        parent.elements.push_back(std::move(value));
        break;
      default:
        parent.entries.emplace(std::move(*parent.pendingKey), std::move(value));
        parent.pendingKey.reset();
        break;
    }
    return true;
  }

  const XmlLimits& limits_;
  std::vector<Frame> stack_;
  std::size_t containerDepth_ = 0;
  bool sawRoot_ = false;
  Value result_;
};

}  // namespace

Value parseXml(std::string_view document, const XmlLimits& limits) {
  return PlistReader(limits).read(document);
}

}  // namespace nightjar::plist
