#include <algorithm>
#include <cstdint>

#include "plist/value.h"

namespace nightjar::plist {

namespace {

// Reads UTF-16 code units one at a time from UTF-8 text. A malformed sequence
// (bad lead byte, missing or bad continuation, overlong form, surrogate code
// point, value above U+10FFFF) yields its first byte as one unit and resumes
// at the next byte, so any input is consumed in bounded steps.
class Utf16Units {
 public:
  explicit Utf16Units(std::string_view utf8) : text_(utf8) {}

  bool done() const { return pendingLow_ == 0 && position_ >= text_.size(); }

  // The next code unit; call only when !done().
  std::uint16_t next() {
    if (pendingLow_ != 0) {
      std::uint16_t low = pendingLow_;
      pendingLow_ = 0;
      return low;
    }
    char32_t point = decode();
    if (point < 0x10000) {
      return static_cast<std::uint16_t>(point);
    }
    point -= 0x10000;
    pendingLow_ = static_cast<std::uint16_t>(0xDC00 + (point & 0x3FF));
    return static_cast<std::uint16_t>(0xD800 + (point >> 10));
  }

 private:
  std::uint8_t byteAt(std::size_t index) const { return static_cast<std::uint8_t>(text_[index]); }

  char32_t decode() {
    std::uint8_t lead = byteAt(position_);
    std::size_t length = 0;
    char32_t point = 0;
    char32_t minimum = 0;
    if (lead < 0x80) {
      ++position_;
      return lead;
    } else if ((lead & 0xE0) == 0xC0) {
      length = 2, point = lead & 0x1F, minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3, point = lead & 0x0F, minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4, point = lead & 0x07, minimum = 0x10000;
    } else {
      ++position_;
      return lead;
    }
    if (position_ + length > text_.size()) {
      ++position_;
      return lead;
    }
    for (std::size_t i = 1; i < length; ++i) {
      std::uint8_t continuation = byteAt(position_ + i);
      if ((continuation & 0xC0) != 0x80) {
        ++position_;
        return lead;
      }
      point = (point << 6) | (continuation & 0x3F);
    }
    if (point < minimum || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) {
      ++position_;
      return lead;
    }
    position_ += length;
    return point;
  }

  std::string_view text_;
  std::size_t position_ = 0;
  std::uint16_t pendingLow_ = 0;
};

}  // namespace

std::size_t utf16Length(std::string_view utf8) {
  std::size_t length = 0;
  for (Utf16Units units(utf8); !units.done(); units.next()) {
    ++length;
  }
  return length;
}

int compareUtf16(std::string_view a, std::string_view b) {
  // A common run of ASCII bytes is the same units on both sides, and decoding
  // after it starts afresh: only the rest needs decoding.
  std::size_t start = 0;
  const std::size_t shorter = std::min(a.size(), b.size());
  while (start < shorter && a[start] == b[start] && static_cast<std::uint8_t>(a[start]) < 0x80)
    ++start;
  if (start == shorter)
    return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
  const auto byteA = static_cast<std::uint8_t>(a[start]);
  const auto byteB = static_cast<std::uint8_t>(b[start]);
  if (byteA < 0x80 && byteB < 0x80)
    return byteA < byteB ? -1 : 1;
  a.remove_prefix(start);
  b.remove_prefix(start);
  Utf16Units left(a);
  Utf16Units right(b);
  while (!left.done() && !right.done()) {
    int difference = int{left.next()} - int{right.next()};
    if (difference != 0) {
      return difference < 0 ? -1 : 1;
    }
  }
  if (left.done() && right.done()) {
    return 0;
  }
  return left.done() ? -1 : 1;
}

}  // namespace nightjar::plist
