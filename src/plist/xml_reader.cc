#include <expat.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "plist/base64.h"
#include "plist/scalar_text.h"
#include "plist/xml.h"

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
// Expat takes an int length; larger documents are fed in pieces of this size.
constexpr std::size_t kChunkBytes = 1 << 20;

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

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    return (x >= 'A' && x <= 'Z' ? x - 'A' + 'a' : x) == (y >= 'A' && y <= 'Z' ? y - 'A' + 'a' : y);
  });
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

struct ParserDeleter {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};

// Builds a value from expat's callbacks. Any fault sets `failed_` and stops
// the parser; expat may still deliver a callback or two after a stop, so
// every handler returns at once once the parse has failed.
class PlistReader {
 public:
  explicit PlistReader(const XmlLimits& limits) : limits_(limits) {}

  Value read(std::string_view document) {
    std::unique_ptr<XML_ParserStruct, ParserDeleter> parser(XML_ParserCreate("UTF-8"));
    if (!parser) {
      return {};
    }
    parser_ = parser.get();
    install();
    do {
      const std::size_t size = std::min(document.size(), kChunkBytes);
      const bool last = size == document.size();
      if (XML_Parse(parser_, document.data(), static_cast<int>(size), last) != XML_STATUS_OK) {
        return {};
      }
      document.remove_prefix(size);
    } while (!document.empty());
    return failed_ ? Value() : result_;
  }

 private:
  static PlistReader& self(void* data) { return *static_cast<PlistReader*>(data); }

  void install() {
    XML_SetUserData(parser_, this);
    XML_SetElementHandler(parser_, onStart, onEnd);
    XML_SetCharacterDataHandler(parser_, onText);
    XML_SetXmlDeclHandler(parser_, onXmlDecl);
    XML_SetStartDoctypeDeclHandler(parser_, onDoctype);
    XML_SetEntityDeclHandler(parser_, onEntityDecl);
    XML_SetSkippedEntityHandler(parser_, onSkippedEntity);
    XML_SetExternalEntityRefHandler(parser_, onExternalEntity);
    XML_SetParamEntityParsing(parser_, XML_PARAM_ENTITY_PARSING_NEVER);
  }

  void fail() {
    if (!failed_) {
      failed_ = true;
      XML_StopParser(parser_, XML_FALSE);
    }
  }

  // Only the UTF-8 the parser was created for is read; a document that
  // declares another encoding would be misread.
  static void XMLCALL onXmlDecl(void* data, const XML_Char*, const XML_Char* encoding, int) {
    if (encoding != nullptr && !equalsIgnoringCase(encoding, "UTF-8")) {
      self(data).fail();
    }
  }

  // An internal subset could define entities or defaults; only a bare
  // reference to the property-list DTD is accepted.
  static void XMLCALL onDoctype(void* data, const XML_Char* name, const XML_Char*,
                                const XML_Char* publicId, int hasInternalSubset) {
    if (std::string_view(name) != "plist" || hasInternalSubset ||
        (publicId != nullptr && publicId != kPublicId)) {
      self(data).fail();
    }
  }

  static void XMLCALL onEntityDecl(void* data, const XML_Char*, int, const XML_Char*, int,
                                   const XML_Char*, const XML_Char*, const XML_Char*,
                                   const XML_Char*) {
    self(data).fail();
  }

  static void XMLCALL onSkippedEntity(void* data, const XML_Char*, int) { self(data).fail(); }

  static int XMLCALL onExternalEntity(XML_Parser, const XML_Char*, const XML_Char*, const XML_Char*,
                                      const XML_Char*) {
    return XML_STATUS_ERROR;
  }

  static void XMLCALL onStart(void* data, const XML_Char* name, const XML_Char** attributes) {
    self(data).start(name, attributes);
  }

  static void XMLCALL onEnd(void* data, const XML_Char*) { self(data).end(); }

  static void XMLCALL onText(void* data, const XML_Char* text, int length) {
    self(data).characters(std::string_view(text, static_cast<std::size_t>(length)));
  }

  void start(std::string_view name, const XML_Char** attributes) {
    if (failed_) {
      return;
    }
    const std::optional<Element> element = elementNamed(name);
    if (!element || !attributesAllowed(*element, attributes) || !openAllowed(*element)) {
      return fail();
    }
    if (isContainer(*element) && ++containerDepth_ > limits_.maxDepth) {
      return fail();
    }
    stack_.push_back(Frame{*element, {}, {}, {}, {}, {}});
  }

  // Only the root carries an attribute: version="1.0", which may be absent.
  static bool attributesAllowed(Element element, const XML_Char** attributes) {
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

  void characters(std::string_view text) {
    if (failed_ || stack_.empty()) {
      return;
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
        return;
      default:
        // Between elements only layout whitespace may appear.
        if (!std::all_of(text.begin(), text.end(), isXmlSpace)) {
          fail();
        }
    }
  }

  void end() {
    if (failed_ || stack_.empty()) {
      return;
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
        if (frame.pendingKey) {
          return fail();  // a key without its value
        }
        return addToParent(Value::dictionary(std::move(frame.entries)));
      case Element::Array:
        --containerDepth_;
        return addToParent(Value::array(std::move(frame.elements)));
      default:
        return addToParent(leafValue(frame));
    }
  }

  void closeRoot(Frame frame) {
    sawRoot_ = true;
    if (frame.value.isNone()) {
      return fail();
    }
    result_ = std::move(frame.value);
  }

  void closeKey(std::string key) {
    Frame& dict = stack_.back();
    if (dict.entries.find(key) != dict.entries.end()) {
      return fail();  // duplicate key: neither copy is trusted
    }
    dict.pendingKey = std::move(key);
  }

  void addToParent(Value value) {
    if (value.isNone()) {
      return fail();
    }
    Frame& parent = stack_.back();
    switch (parent.element) {
      case Element::Plist:
        parent.value = std::move(value);
        return;
      case Element::Array:
        parent.elements.push_back(std::move(value));
        return;
      default:
        parent.entries.emplace(std::move(*parent.pendingKey), std::move(value));
        parent.pendingKey.reset();
        return;
    }
  }

  const XmlLimits& limits_;
  XML_Parser parser_ = nullptr;
  std::vector<Frame> stack_;
  std::size_t containerDepth_ = 0;
  bool sawRoot_ = false;
  bool failed_ = false;
  Value result_;
};

}  // namespace

Value parseXml(std::string_view document, const XmlLimits& limits) {
  if (document.size() > limits.maxBytes) {
    return {};
  }
  return PlistReader(limits).read(document);
}

}  // namespace nightjar::plist
