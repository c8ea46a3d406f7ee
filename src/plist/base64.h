// Base64 (RFC 4648 standard alphabet, with padding): the text form of data.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "plist/value.h"

namespace nightjar::plist {

// Encodes bytes as base64 lines of at most `lineLength` characters (a multiple
// of 4), each line preceded by `indent` and followed by a line feed. An empty
// input gives an empty text.
std::string encodeBase64(const Bytes& bytes, std::size_t lineLength, std::string_view indent);

// Decodes base64 text. Spaces, tabs, carriage returns and line feeds anywhere
// are skipped; anything else outside the alphabet, a character count that is
// not a multiple of 4, or padding anywhere but at the end is refused.
std::optional<Bytes> decodeBase64(std::string_view text);

}  // namespace nightjar::plist
