// The XML property-list form: the wire format of the API and the format of
// every file the daemon keeps.
#pragma once

#include <string>
#include <string_view>

#include "plist/value.h"

namespace nightjar::plist {

struct XmlLimits {
  std::size_t maxBytes = 16 * 1024 * 1024;  // whole document
  std::size_t maxDepth = 128;               // nested arrays and dictionaries
};

// Parses an XML property list (the standard "plist" root with an optional
// DOCTYPE naming the Apple property-list DTD). Answers none on any fault:
// malformed XML, entity definitions or references other than the five
// predefined ones, unknown elements, nesting deeper than the limit, a document
// larger than the limit, invalid UTF-8, bad base64, bad dates or numbers, a
// dictionary key without a value. Never throws; safe on any input.
Value parseXml(std::string_view document, const XmlLimits& limits = {});

// Writes a value as a complete XML property list document (XML declaration,
// DOCTYPE, <plist version="1.0">). Answers an empty string for none.
std::string writeXml(const Value& value);

class XmlWriteCache;
// The same bytes, with the records inside arrays taken from `cache` where it
// holds them; `cache` then holds the forms of this document's records.
std::string writeXml(const Value& value, XmlWriteCache& cache);

}  // namespace nightjar::plist
