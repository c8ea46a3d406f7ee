#include "wire/framing_buffer.h"

#include <algorithm>

namespace nightjar::api::framing {

void ReadBuffer::append(std::span<const std::uint8_t> bytes) {
  // What is left at the front is at most one partial message: moving it down
  // keeps the storage from growing with every message that passed through.
  if (start_ > 0) {
    storage_.erase(storage_.begin(), storage_.begin() + static_cast<std::ptrdiff_t>(start_));
    start_ = 0;
  }
  storage_.insert(storage_.end(), bytes.begin(), bytes.end());
}

void ReadBuffer::consume(std::size_t count) {
  start_ += std::min(count, size());
  if (start_ == storage_.size()) {
    clear();
  }
}

void ReadBuffer::clear() {
  std::vector<std::uint8_t>().swap(storage_);
  start_ = 0;
}

std::span<const std::uint8_t> ReadBuffer::bytes() const {
  return std::span<const std::uint8_t>(storage_).subspan(start_);
}

}  // namespace nightjar::api::framing
