// The API's wire framing, shared by the daemon and the tools: every message
// begins with a 16-byte header of four little-endian 32-bit words (magic,
// type, identifier, whole length); a DICT request and the RPLY to it carry an
// XML property list after a reserved word and the payload length.
//
// Pure functions over bytes: nothing here reads a socket or keeps state, so
// the rules can be tested and fuzzed over any split of the stream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "plist/value.h"

namespace nightjar::api::framing {

// A message as bytes, ready to write.
using Message = std::string;

// "NJAP": written in every message the daemon sends, never tested on receipt.
inline constexpr std::uint32_t kMagic = 0x4E4A4150;

// Four-character codes; the first character is the most significant byte, so
// DICT travels as the bytes "TCID".
enum class MessageType : std::uint32_t {
  Dict = 0x44494354,     // client → daemon: a request carrying a property list
  Noop = 0x4E4F4F50,     // client → daemon: answered with an empty reply
  Goodbye = 0x47444259,  // client → daemon: "GDBY", the client is leaving
  Reply = 0x52504C59,    // daemon → client: "RPLY"
};

inline constexpr std::size_t kHeaderLength = 16;
// Header, reserved word, payload length: where a DICT's payload begins.
inline constexpr std::size_t kPayloadOffset = 24;
// The answer to a NOOP: the header and one zero word.
inline constexpr std::size_t kEmptyReplyLength = 20;
// The longest message the daemon reads; a longer one closes the connection.
inline constexpr std::uint32_t kMaxRequestLength = 102400;
// The most replies a connection may have waiting to be written.
inline constexpr std::size_t kMaxUnsentReplies = 100;
// The longest reply a client of this library accepts by default: replies
// carry whole event lists, so they are not held to the request limit.
inline constexpr std::uint32_t kDefaultMaxReplyLength = 64u << 20;

struct Header {
  std::uint32_t magic = 0;
  std::uint32_t type = 0;
  std::uint32_t identifier = 0;
  std::uint32_t length = 0;  // the whole message, header included
};

// The header at the start of `bytes`, or nullopt with fewer than 16 bytes.
std::optional<Header> readHeader(std::span<const std::uint8_t> bytes);

// What the start of a connection's buffered bytes holds.
enum class FrameStatus {
  NeedMore,  // wait for more bytes
  Ready,     // a whole message: handle it, then consume `length` bytes
  Close,     // close the connection (see `reason`)
};

enum class CloseReason {
  None,
  TooLong,         // length over the limit (known as soon as the header is in)
  TooShort,        // shorter than its type requires
  UnknownType,     // a type this side does not read
  PayloadPastEnd,  // payload length runs past the end of the message
  Goodbye,         // GDBY: the client asked to close
};

struct Frame {
  FrameStatus status = FrameStatus::NeedMore;
  CloseReason reason = CloseReason::None;
  MessageType type{};
  std::uint32_t identifier = 0;
  std::uint32_t length = 0;  // bytes the message occupies in the stream
  // DICT and RPLY: the payload, a view into the bytes given to the decoder.
  std::string_view payload;
};

// The daemon's side: decodes the message at the start of `buffered`. Checks
// run in this order: the header is in; length at most 102400; the whole
// message is in; then by type: GDBY closes, NOOP needs 16 bytes, DICT 24 and a
// payload inside the message; any other type closes. Bytes after the payload
// and before the end of the message are skipped with it.
Frame decodeRequest(std::span<const std::uint8_t> buffered);

// The client's side: decodes an RPLY of 20 bytes (the answer to a NOOP, with
// an empty payload) or of 24 bytes and more with a payload.
Frame decodeReply(std::span<const std::uint8_t> buffered,
                  std::uint32_t maxLength = kDefaultMaxReplyLength);

// A message of `type` whose payload is `payload`, from offset 24, with the
// reserved word 0. nullopt when the whole would not fit the 32-bit length.
std::optional<Message> encodePayloadMessage(MessageType type, std::uint32_t identifier,
                                            std::string_view payload);

// The RPLY that carries `reply` as XML; nullopt for none (no answer is sent).
std::optional<Message> encodeReply(std::uint32_t identifier, const plist::Value& reply);
// The 20-byte RPLY that answers a NOOP.
Message encodeEmptyReply(std::uint32_t identifier);

// A DICT request carrying `request` as XML; nullopt for none and for a request
// over 102400 bytes, which the daemon would refuse.
std::optional<Message> encodeRequest(std::uint32_t identifier, const plist::Value& request);
// A header-only message (NOOP, GDBY) of 16 bytes.
Message encodeBare(MessageType type, std::uint32_t identifier);

// Parses a request payload with the daemon's limits; none when it is not a
// property list.
plist::Value parsePayload(std::string_view payload);

}  // namespace nightjar::api::framing
