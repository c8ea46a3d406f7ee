// The bytes a connection has received and not yet consumed as whole
// messages. Reads append at the end, decoded messages leave from the front;
// a drained buffer gives its memory back, so an idle connection holds none.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace nightjar::api::framing {

class ReadBuffer {
 public:
  void append(std::span<const std::uint8_t> bytes);
  // Drops `count` bytes from the front; at most size().
  void consume(std::size_t count);
  void clear();

  // Valid until the next append, consume or clear.
  std::span<const std::uint8_t> bytes() const;
  std::size_t size() const { return storage_.size() - start_; }
  bool empty() const { return size() == 0; }
  std::size_t capacity() const { return storage_.capacity(); }

 private:
  std::vector<std::uint8_t> storage_;
  std::size_t start_ = 0;  // first unconsumed byte
};

}  // namespace nightjar::api::framing
