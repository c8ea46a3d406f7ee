#include <expat.h>

#include <algorithm>
#include <memory>

#include "plist/xml_toolkit.h"

namespace nightjar::plist {
namespace {

// Expat takes an int length; larger documents are fed in pieces of this size.
constexpr std::size_t kChunkBytes = 1 << 20;

struct ParserDeleter {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    return (x >= 'A' && x <= 'Z' ? x - 'A' + 'a' : x) == (y >= 'A' && y <= 'Z' ? y - 'A' + 'a' : y);
  });
}

// Holds the rules over expat's callbacks and hands elements to the handler.
// Any fault stops the parser; expat may still deliver a callback or two after
// a stop, so every callback returns at once once the parse has failed.
class BoundedParser {
 public:
  BoundedParser(const XmlRules& rules, XmlHandler& handler) : rules_(rules), handler_(handler) {}

  bool parse(std::string_view document) {
    if (document.size() > rules_.maxBytes)
      return false;
    std::unique_ptr<XML_ParserStruct, ParserDeleter> parser(XML_ParserCreate("UTF-8"));
    if (!parser)
      return false;
    parser_ = parser.get();
    install();
    do {
      const std::size_t size = std::min(document.size(), kChunkBytes);
      const bool last = size == document.size();
      if (XML_Parse(parser_, document.data(), static_cast<int>(size), last) != XML_STATUS_OK)
        return false;
      document.remove_prefix(size);
    } while (!document.empty());
    return !failed_;
  }

 private:
  static BoundedParser& self(void* data) { return *static_cast<BoundedParser*>(data); }

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

  void check(bool ok) {
    if (!ok && !failed_) {
      failed_ = true;
      XML_StopParser(parser_, XML_FALSE);
    }
  }

  XmlSpan span() const {
    return {static_cast<std::size_t>(XML_GetCurrentByteIndex(parser_)),
            static_cast<std::size_t>(XML_GetCurrentByteCount(parser_))};
  }

  // Only the UTF-8 the parser was created for is read; a document that
  // declares another encoding would be misread.
  static void XMLCALL onXmlDecl(void* data, const XML_Char*, const XML_Char* encoding, int) {
    self(data).check(encoding == nullptr || equalsIgnoringCase(encoding, "UTF-8"));
  }

  static void XMLCALL onDoctype(void* data, const XML_Char* name, const XML_Char*,
                                const XML_Char* publicId, int hasInternalSubset) {
    const XmlRules& rules = self(data).rules_;
    self(data).check(std::string_view(name) == rules.root && !hasInternalSubset &&
                     (rules.publicId.empty() || publicId == nullptr || publicId == rules.publicId));
  }

  static void XMLCALL onEntityDecl(void* data, const XML_Char*, int, const XML_Char*, int,
                                   const XML_Char*, const XML_Char*, const XML_Char*,
                                   const XML_Char*) {
    self(data).check(false);
  }

  static void XMLCALL onSkippedEntity(void* data, const XML_Char*, int) { self(data).check(false); }

  static int XMLCALL onExternalEntity(XML_Parser, const XML_Char*, const XML_Char*, const XML_Char*,
                                      const XML_Char*) {
    return XML_STATUS_ERROR;
  }

  static void XMLCALL onStart(void* data, const XML_Char* name, const XML_Char** attributes) {
    BoundedParser& parser = self(data);
    if (parser.failed_)
      return;
    ++parser.depth_;
    parser.check(parser.depth_ <= parser.rules_.maxDepth &&
                 (parser.depth_ > 1 || std::string_view(name) == parser.rules_.root) &&
                 parser.handler_.startElement(name, attributes, parser.span()));
  }

  static void XMLCALL onEnd(void* data, const XML_Char* name) {
    BoundedParser& parser = self(data);
    if (parser.failed_)
      return;
    parser.check(parser.handler_.endElement(name, parser.span()));
    --parser.depth_;
  }

  static void XMLCALL onText(void* data, const XML_Char* text, int length) {
    BoundedParser& parser = self(data);
    if (!parser.failed_)
      parser.check(parser.handler_.text(std::string_view(text, static_cast<std::size_t>(length))));
  }

  const XmlRules& rules_;
  XmlHandler& handler_;
  XML_Parser parser_ = nullptr;
  std::size_t depth_ = 0;
  bool failed_ = false;
};

}  // namespace

bool parseXmlDocument(std::string_view document, const XmlRules& rules, XmlHandler& handler) {
  return BoundedParser(rules, handler).parse(document);
}

}  // namespace nightjar::plist
