#include "wire/framing.h"

#include <limits>

#include "plist/xml.h"

namespace nightjar::api::framing {
namespace {

// Nesting the daemon accepts in a request; requests are shallow.
constexpr std::size_t kMaxRequestDepth = 128;

std::uint32_t wordAt(std::span<const std::uint8_t> bytes, std::size_t offset) {
  return static_cast<std::uint32_t>(bytes[offset]) |
         static_cast<std::uint32_t>(bytes[offset + 1]) << 8 |
         static_cast<std::uint32_t>(bytes[offset + 2]) << 16 |
         static_cast<std::uint32_t>(bytes[offset + 3]) << 24;
}

void appendWord(Message& message, std::uint32_t word) {
  for (int shift = 0; shift < 32; shift += 8) {
    message.push_back(static_cast<char>((word >> shift) & 0xFF));
  }
}

void appendHeader(Message& message, MessageType type, std::uint32_t identifier,
                  std::uint32_t length) {
  appendWord(message, kMagic);
  appendWord(message, static_cast<std::uint32_t>(type));
  appendWord(message, identifier);
  appendWord(message, length);
}

Frame closeWith(Frame frame, CloseReason reason) {
  frame.status = FrameStatus::Close;
  frame.reason = reason;
  return frame;
}

// A message of at least 24 bytes whose payload must lie inside it.
Frame withPayload(Frame frame, std::span<const std::uint8_t> buffered) {
  if (frame.length < kPayloadOffset) {
    return closeWith(frame, CloseReason::TooShort);
  }
  const std::uint32_t payloadLength = wordAt(buffered, 20);
  if (payloadLength > frame.length - kPayloadOffset) {
    return closeWith(frame, CloseReason::PayloadPastEnd);
  }
  frame.status = FrameStatus::Ready;
  frame.payload = std::string_view(reinterpret_cast<const char*>(buffered.data()) + kPayloadOffset,
                                   payloadLength);
  return frame;
}

// The steps both sides share: a whole header, the length limit, the whole
// message. Fills the header fields of `frame` and answers true when the whole
// message is in and the caller classifies it; false leaves `frame` settled as
// NeedMore or Close.
bool wholeMessage(std::span<const std::uint8_t> buffered, std::uint32_t maxLength, Frame& frame) {
  const std::optional<Header> header = readHeader(buffered);
  if (!header) {
    return false;
  }
  frame.type = static_cast<MessageType>(header->type);
  frame.identifier = header->identifier;
  frame.length = header->length;
  if (header->length > maxLength) {
    frame = closeWith(frame, CloseReason::TooLong);
    return false;
  }
  return buffered.size() >= header->length;
}

}  // namespace

std::optional<Header> readHeader(std::span<const std::uint8_t> bytes) {
  if (bytes.size() < kHeaderLength) {
    return std::nullopt;
  }
  return Header{wordAt(bytes, 0), wordAt(bytes, 4), wordAt(bytes, 8), wordAt(bytes, 12)};
}

Frame decodeRequest(std::span<const std::uint8_t> buffered) {
  Frame frame;
  if (!wholeMessage(buffered, kMaxRequestLength, frame)) {
    return frame;
  }
  switch (frame.type) {
    case MessageType::Goodbye:
      return closeWith(frame, CloseReason::Goodbye);
    case MessageType::Noop:
      if (frame.length < kHeaderLength) {
        return closeWith(frame, CloseReason::TooShort);
      }
      frame.status = FrameStatus::Ready;
      return frame;
    case MessageType::Dict:
      return withPayload(frame, buffered);
    default:
      return closeWith(frame, CloseReason::UnknownType);
  }
}

Frame decodeReply(std::span<const std::uint8_t> buffered, std::uint32_t maxLength) {
  Frame frame;
  if (!wholeMessage(buffered, maxLength, frame)) {
    return frame;
  }
  if (frame.type != MessageType::Reply) {
    return closeWith(frame, CloseReason::UnknownType);
  }
  if (frame.length == kEmptyReplyLength) {
    frame.status = FrameStatus::Ready;
    return frame;
  }
  return withPayload(frame, buffered);
}

std::optional<Message> encodePayloadMessage(MessageType type, std::uint32_t identifier,
                                            std::string_view payload) {
  if (payload.size() > std::numeric_limits<std::uint32_t>::max() - kPayloadOffset) {
    return std::nullopt;
  }
  const auto length = static_cast<std::uint32_t>(kPayloadOffset + payload.size());
  Message message;
  message.reserve(length);
  appendHeader(message, type, identifier, length);
  appendWord(message, 0);
  appendWord(message, static_cast<std::uint32_t>(payload.size()));
  message.append(payload);
  return message;
}

std::optional<Message> encodeReply(std::uint32_t identifier, const plist::Value& reply) {
  if (reply.isNone()) {
    return std::nullopt;
  }
  return encodePayloadMessage(MessageType::Reply, identifier, plist::writeXml(reply));
}

Message encodeEmptyReply(std::uint32_t identifier) {
  Message message;
  message.reserve(kEmptyReplyLength);
  appendHeader(message, MessageType::Reply, identifier, kEmptyReplyLength);
  appendWord(message, 0);
  return message;
}

std::optional<Message> encodeRequest(std::uint32_t identifier, const plist::Value& request) {
  if (request.isNone()) {
    return std::nullopt;
  }
  const std::string xml = plist::writeXml(request);
  if (xml.size() > kMaxRequestLength - kPayloadOffset) {
    return std::nullopt;
  }
  return encodePayloadMessage(MessageType::Dict, identifier, xml);
}

Message encodeBare(MessageType type, std::uint32_t identifier) {
  Message message;
  message.reserve(kHeaderLength);
  appendHeader(message, type, identifier, kHeaderLength);
  return message;
}

plist::Value parsePayload(std::string_view payload) {
  return plist::parseXml(payload, {.maxBytes = kMaxRequestLength, .maxDepth = kMaxRequestDepth});
}

}  // namespace nightjar::api::framing
