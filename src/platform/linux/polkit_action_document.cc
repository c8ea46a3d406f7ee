#include "platform/linux/polkit_action_document.h"

#include <expat.h>

#include <memory>

namespace nightjar::platform::linux_adapter {
namespace {

constexpr int kMaxDepth = 32;
constexpr std::string_view kRoot = "policyconfig";
constexpr char kEmptyFile[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE policyconfig PUBLIC \"-//freedesktop//DTD PolicyKit Policy Configuration "
    "1.0//EN\"\n"
    " \"http://www.freedesktop.org/standards/PolicyKit/1/policyconfig.dtd\">\n"
    "<!-- Rights of nightjard, the scheduled power events daemon.\n"
    "     \"nightjard -i\" adds the missing ones, \"nightjard -u\" removes them. -->\n"
    "<policyconfig>\n"
    "</policyconfig>\n";

struct ParserDeleter {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size())
    return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if ((a[i] | 0x20) != (b[i] | 0x20))
      return false;
  }
  return true;
}

// Collects the actions from expat's callbacks. Any fault stops the parser;
// expat may deliver a callback after a stop, so handlers return once failed.
class ActionReader {
 public:
  std::optional<PolkitActionDocument> read(std::string text) {
    std::unique_ptr<XML_ParserStruct, ParserDeleter> parser(XML_ParserCreate("UTF-8"));
    if (!parser || text.size() > kMaxActionFileBytes)
      return std::nullopt;
    parser_ = parser.get();
    install();
    if (XML_Parse(parser_, text.data(), static_cast<int>(text.size()), XML_TRUE) != XML_STATUS_OK ||
        failed_) {
      return std::nullopt;
    }
    document_.text = std::move(text);
    return std::move(document_);
  }

 private:
  static ActionReader& self(void* data) { return *static_cast<ActionReader*>(data); }

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

  static void XMLCALL onXmlDecl(void* data, const XML_Char*, const XML_Char* encoding, int) {
    if (encoding != nullptr && !equalsIgnoringCase(encoding, "UTF-8"))
      self(data).fail();
  }
  // An internal subset could define entities or attribute defaults.
  static void XMLCALL onDoctype(void* data, const XML_Char* name, const XML_Char*, const XML_Char*,
                                int hasInternalSubset) {
    if (std::string_view(name) != kRoot || hasInternalSubset)
      self(data).fail();
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
  static void XMLCALL onEnd(void* data, const XML_Char* name) { self(data).end(name); }
  static void XMLCALL onText(void* data, const XML_Char* text, int length) {
    if (std::string* field = self(data).field_)
      field->append(text, static_cast<std::size_t>(length));
  }

  void start(std::string_view name, const XML_Char** attributes) {
    if (failed_)
      return;
    if (++depth_ > kMaxDepth || (depth_ == 1 && name != kRoot))
      return fail();
    if (depth_ == 2 && name == "action") {
      inAction_ = true;
      PolkitAction& action = document_.actions.emplace_back();
      action.begin = static_cast<std::size_t>(XML_GetCurrentByteIndex(parser_));
      for (const XML_Char** a = attributes; a[0] != nullptr; a += 2) {
        if (std::string_view(a[0]) == "id")
          action.id = a[1];
      }
    } else if (depth_ == 3 && inAction_ && name == "defaults") {
      inDefaults_ = true;
    } else if (depth_ == 4 && inDefaults_) {
      startDefault(name);
    }
  }

  void startDefault(std::string_view name) {
    PolkitDefaults& defaults = document_.actions.back().defaults;
    if (name == "allow_any")
      field_ = &defaults.allowAny;
    else if (name == "allow_inactive")
      field_ = &defaults.allowInactive;
    else if (name == "allow_active")
      field_ = &defaults.allowActive;
    if (field_ != nullptr)
      field_->clear();
  }

  void end(std::string_view name) {
    if (failed_)
      return;
    const auto position = static_cast<std::size_t>(XML_GetCurrentByteIndex(parser_));
    const auto length = static_cast<std::size_t>(XML_GetCurrentByteCount(parser_));
    if (depth_ == 4 && field_ != nullptr) {
      *field_ = trimmed(*field_);
      field_ = nullptr;
    } else if (depth_ == 3 && inDefaults_) {
      inDefaults_ = false;
    } else if (depth_ == 2 && inAction_ && name == "action") {
      inAction_ = false;
      // An empty element's end has no bytes of its own: it ends where its
      // start tag does, which is where expat stands.
      document_.actions.back().end = position + length;
    } else if (depth_ == 1) {
      document_.closeTag = length == 0 ? std::string::npos : position;
    }
    --depth_;
  }

  static std::string trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos)
      return {};
    return std::string(text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1));
  }

  XML_Parser parser_ = nullptr;
  bool failed_ = false;
  int depth_ = 0;
  bool inAction_ = false;
  bool inDefaults_ = false;
  std::string* field_ = nullptr;
  PolkitActionDocument document_;
};

std::string escaped(std::string_view text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

// The start of the line holding `position` when only blanks precede it there.
std::optional<std::size_t> lineStartBefore(std::string_view text, std::size_t position) {
  std::size_t start = position;
  while (start > 0 && (text[start - 1] == ' ' || text[start - 1] == '\t'))
    --start;
  if (start == 0 || text[start - 1] == '\n')
    return start;
  return std::nullopt;
}

// Just past the end of the line holding `position` when only blanks follow it.
std::optional<std::size_t> lineEndAfter(std::string_view text, std::size_t position) {
  std::size_t end = position;
  while (end < text.size() && (text[end] == ' ' || text[end] == '\t' || text[end] == '\r'))
    ++end;
  if (end < text.size() && text[end] == '\n')
    return end + 1;
  if (end == text.size())
    return end;
  return std::nullopt;
}

}  // namespace

std::optional<PolkitActionDocument> parsePolkitActions(std::string text) {
  return ActionReader().read(std::move(text));
}

std::string emptyPolkitActionFile() {
  return kEmptyFile;
}

std::string renderPolkitAction(std::string_view id, const PolkitDefaults& defaults) {
  const std::string name = escaped(id);
  return "  <action id=\"" + name + "\">\n" +                                       //
         "    <description>Scheduled power events: " + name + "</description>\n" +  //
         "    <message>Authentication is required for " + name + "</message>\n" +   //
         "    <defaults>\n" +                                                       //
         "      <allow_any>" + escaped(defaults.allowAny) + "</allow_any>\n" +
         "      <allow_inactive>" + escaped(defaults.allowInactive) + "</allow_inactive>\n" +
         "      <allow_active>" + escaped(defaults.allowActive) + "</allow_active>\n" +
         "    </defaults>\n" +  //
         "  </action>\n";
}

std::string withPolkitAction(const PolkitActionDocument& document, std::string_view action) {
  if (document.closeTag == std::string::npos) {
    // "<policyconfig/>" holds nothing worth keeping: start from a fresh file.
    if (std::optional<PolkitActionDocument> fresh = parsePolkitActions(emptyPolkitActionFile()))
      return withPolkitAction(*fresh, action);
    return {};
  }
  std::string text = document.text;
  if (std::optional<std::size_t> lineStart = lineStartBefore(text, document.closeTag))
    text.insert(*lineStart, action);
  else
    text.insert(document.closeTag, "\n" + std::string(action));
  return text;
}

std::string withoutPolkitAction(const PolkitActionDocument& document, const PolkitAction& action) {
  std::string text = document.text;
  std::optional<std::size_t> begin = lineStartBefore(text, action.begin);
  std::optional<std::size_t> end = lineEndAfter(text, action.end);
  if (begin && end)
    text.erase(*begin, *end - *begin);
  else
    text.erase(action.begin, action.end - action.begin);
  return text;
}

}  // namespace nightjar::platform::linux_adapter
