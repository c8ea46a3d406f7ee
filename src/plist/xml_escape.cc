#include <string>

#include "plist/xml_toolkit.h"

namespace nightjar::plist {

std::string escapeXmlText(std::string_view text, XmlQuote quote) {
  std::string out;
  out.reserve(text.size());
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
      case '\r':
        out += "&#13;";
        break;
      case '"':
        out += quote == XmlQuote::Escaped ? "&quot;" : "\"";
        break;
      default:
        out += c;
    }
  }
  return out;
}

}  // namespace nightjar::plist
