#include "platform/linux/polkit_action_document.h"

#include "plist/xml_toolkit.h"

namespace nightjar::platform::linux_adapter {
namespace {

std::string escapeText(std::string_view text) {
  return plist::escapeXmlText(text, plist::XmlQuote::Escaped);
}

constexpr std::size_t kMaxDepth = 32;
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

// Collects the actions from the elements the bounded parser hands over.
class ActionReader : public plist::XmlHandler {
 public:
  std::optional<PolkitActionDocument> read(std::string text) {
    const plist::XmlRules rules{kRoot, {}, kMaxActionFileBytes, kMaxDepth};
    if (!plist::parseXmlDocument(text, rules, *this))
      return std::nullopt;
    document_.text = std::move(text);
    return std::move(document_);
  }

 private:
  bool text(std::string_view text) override {
    if (field_ != nullptr)
      field_->append(text);
    return true;
  }

  bool startElement(std::string_view name, const char* const* attributes,
                    plist::XmlSpan span) override {
    ++depth_;
    if (depth_ == 2 && name == "action") {
      inAction_ = true;
      PolkitAction& action = document_.actions.emplace_back();
      action.begin = span.begin;
      for (const char* const* a = attributes; a[0] != nullptr; a += 2) {
        if (std::string_view(a[0]) == "id")
          action.id = a[1];
      }
    } else if (depth_ == 3 && inAction_ && name == "defaults") {
      inDefaults_ = true;
    } else if (depth_ == 4 && inDefaults_) {
      startDefault(name);
    }
    return true;
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

  bool endElement(std::string_view name, plist::XmlSpan span) override {
    if (depth_ == 4 && field_ != nullptr) {
      *field_ = trimmed(*field_);
      field_ = nullptr;
    } else if (depth_ == 3 && inDefaults_) {
      inDefaults_ = false;
    } else if (depth_ == 2 && inAction_ && name == "action") {
      inAction_ = false;
      // An empty element's end has no bytes of its own: it ends where its
      // start tag does, which is where the parser stands.
      document_.actions.back().end = span.begin + span.length;
    } else if (depth_ == 1) {
      document_.closeTag = span.length == 0 ? std::string::npos : span.begin;
    }
    --depth_;
    return true;
  }

  static std::string trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos)
      return {};
    return std::string(text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1));
  }

  int depth_ = 0;
  bool inAction_ = false;
  bool inDefaults_ = false;
  std::string* field_ = nullptr;
  PolkitActionDocument document_;
};

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
  const std::string name = escapeText(id);
  return "  <action id=\"" + name + "\">\n" +                                       //
         "    <description>Scheduled power events: " + name + "</description>\n" +  //
         "    <message>Authentication is required for " + name + "</message>\n" +   //
         "    <defaults>\n" +                                                       //
         "      <allow_any>" + escapeText(defaults.allowAny) + "</allow_any>\n" +
         "      <allow_inactive>" + escapeText(defaults.allowInactive) + "</allow_inactive>\n" +
         "      <allow_active>" + escapeText(defaults.allowActive) + "</allow_active>\n" +
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
