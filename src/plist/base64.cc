#include "plist/base64.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace nightjar::plist {

namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr int kSkip = -1;     // whitespace
constexpr int kPad = -2;      // '='
constexpr int kInvalid = -3;  // anything else

constexpr std::array<int, 256> makeDecodeTable() {
  std::array<int, 256> table{};
  table.fill(kInvalid);
  for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
    table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int>(i);
  }
  table[' '] = table['\t'] = table['\r'] = table['\n'] = kSkip;
  table['='] = kPad;
  return table;
}

constexpr std::array<int, 256> kDecode = makeDecodeTable();

// Appends the 4 characters for up to 3 bytes (missing bytes become padding).
void encodeGroup(const std::uint8_t* bytes, std::size_t count, std::string& out) {
  std::uint32_t group = std::uint32_t{bytes[0]} << 16;
  if (count > 1) {
    group |= std::uint32_t{bytes[1]} << 8;
  }
  if (count > 2) {
    group |= bytes[2];
  }
  out += kAlphabet[(group >> 18) & 0x3F];
  out += kAlphabet[(group >> 12) & 0x3F];
  out += count > 1 ? kAlphabet[(group >> 6) & 0x3F] : '=';
  out += count > 2 ? kAlphabet[group & 0x3F] : '=';
}

}  // namespace

std::string encodeBase64(const Bytes& bytes, std::size_t lineLength, std::string_view indent) {
  std::string out;
  const std::size_t bytesPerLine = lineLength / 4 * 3;
  for (std::size_t lineStart = 0; lineStart < bytes.size(); lineStart += bytesPerLine) {
    out += indent;
    const std::size_t lineEnd = std::min(bytes.size(), lineStart + bytesPerLine);
    for (std::size_t i = lineStart; i < lineEnd; i += 3) {
      encodeGroup(bytes.data() + i, std::min<std::size_t>(3, lineEnd - i), out);
    }
    out += '\n';
  }
  return out;
}

std::optional<Bytes> decodeBase64(std::string_view text) {
  Bytes bytes;
  bytes.reserve(text.size() / 4 * 3);
  std::uint32_t group = 0;
  std::size_t symbols = 0;  // alphabet characters and padding seen
  std::size_t padding = 0;
  for (char c : text) {
    const int code = kDecode[static_cast<unsigned char>(c)];
    if (code == kSkip) {
      continue;
    }
    if (code == kInvalid) {
      return std::nullopt;
    }
    if (code == kPad) {
      // Padding fills only the last one or two places of a group.
      if (symbols % 4 < 2) {
        return std::nullopt;
      }
      ++padding;
    } else if (padding > 0) {
      return std::nullopt;  // data after padding
    }
    group = (group << 6) | static_cast<std::uint32_t>(code < 0 ? 0 : code);
    if (++symbols % 4 == 0) {
      bytes.push_back(static_cast<std::uint8_t>(group >> 16));
      if (padding < 2) {
        bytes.push_back(static_cast<std::uint8_t>(group >> 8));
      }
      if (padding < 1) {
        bytes.push_back(static_cast<std::uint8_t>(group));
      }
      group = 0;
    }
  }
  if (symbols % 4 != 0) {
    return std::nullopt;
  }
  return bytes;
}

}  // namespace nightjar::plist
