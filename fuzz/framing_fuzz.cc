// Feeds arbitrary bytes to the daemon's side of the framing, cut into pieces
// as reads would deliver them. Whatever the cuts, the messages decoded must
// be the same as from the whole stream at once, each must lie inside the
// bytes read and within the limits, and the buffer must stay bounded.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "wire/framing.h"
#include "wire/framing_buffer.h"

namespace {

using namespace nightjar::api::framing;

struct Event {
  FrameStatus status;
  CloseReason reason;
  MessageType type;
  std::uint32_t identifier;
  std::string payload;
  bool operator==(const Event&) const = default;
};

void check(bool condition) {
  if (!condition) {
    std::abort();
  }
}

// Decodes what `buffer` holds; answers false once the connection would close.
bool drain(ReadBuffer& buffer, std::vector<Event>& events) {
  for (;;) {
    const auto bytes = buffer.bytes();
    const Frame frame = decodeRequest(bytes);
    if (frame.status == FrameStatus::NeedMore) {
      return true;
    }
    events.push_back(
        {frame.status, frame.reason, frame.type, frame.identifier, std::string(frame.payload)});
    if (frame.status == FrameStatus::Close) {
      return false;
    }
    check(frame.length >= kHeaderLength && frame.length <= kMaxRequestLength);
    check(frame.length <= bytes.size());
    if (frame.type == MessageType::Dict) {
      const auto* begin = reinterpret_cast<const char*>(bytes.data());
      check(frame.payload.data() == begin + kPayloadOffset);
      check(kPayloadOffset + frame.payload.size() <= frame.length);
      // The payload parses or not; it must never crash the reader.
      (void)parsePayload(frame.payload);
    }
    buffer.consume(frame.length);
  }
}

std::vector<Event> decodeCut(const std::uint8_t* data, std::size_t size, std::size_t piece) {
  ReadBuffer buffer;
  std::vector<Event> events;
  for (std::size_t at = 0; at < size; at += piece) {
    const std::size_t count = std::min(piece, size - at);
    buffer.append({data + at, count});
    if (!drain(buffer, events)) {
      break;
    }
    // What waits is at most one partial message and the rest of one read.
    check(buffer.size() < kMaxRequestLength + piece);
  }
  return events;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::size_t piece = data[0] % 97 + 1;
  ++data;
  --size;
  const std::vector<Event> whole = decodeCut(data, size, size == 0 ? 1 : size);
  check(decodeCut(data, size, piece) == whole);
  check(decodeCut(data, size, 1).size() == whole.size());
  return 0;
}
