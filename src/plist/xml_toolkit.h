// The XML toolkit of every reader and writer of XML here. Reading is expat
// over a document from anywhere, hostile included: bounded (size, element
// depth), UTF-8 only, refusing every entity definition, external entity and
// unknown entity reference, and accepting a DOCTYPE only when it names the
// expected root and has no internal subset (which could define entities).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace nightjar::plist {

// The bytes of the event being handled: where it starts in the document and
// how long it is (0 for the end of an empty element, which has no bytes).
struct XmlSpan {
  std::size_t begin = 0;
  std::size_t length = 0;
};

// What a reader does with the elements; each answers false to fail the parse.
// `attributes` holds name, value pairs and ends with a null name.
class XmlHandler {
 public:
  virtual ~XmlHandler() = default;
  virtual bool startElement(std::string_view name, const char* const* attributes, XmlSpan span) = 0;
  virtual bool endElement(std::string_view name, XmlSpan span) = 0;
  virtual bool text(std::string_view text) = 0;
};

struct XmlRules {
  std::string_view root;      // the root element's name, and the DOCTYPE's
  std::string_view publicId;  // the DOCTYPE's public identifier, if it has one; empty: any
  std::size_t maxBytes = 0;   // whole document
  std::size_t maxDepth = 0;   // nested elements, the root counting 1
};

// Parses `document` through `handler`. Answers false on any fault: the rules
// broken, malformed XML, invalid UTF-8, or a handler's refusal. Never throws.
bool parseXmlDocument(std::string_view document, const XmlRules& rules, XmlHandler& handler);

// `text` with "&", "<" and ">" escaped and a carriage return written as a
// character reference ("&#13;"), since readers turn a literal one into a line
// feed. `quote` Escaped also writes '"' as "&quot;", as an attribute needs.
enum class XmlQuote { Literal, Escaped };
std::string escapeXmlText(std::string_view text, XmlQuote quote = XmlQuote::Literal);

}  // namespace nightjar::plist
