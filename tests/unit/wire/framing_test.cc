#include "wire/framing.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "plist/xml.h"
#include "wire/framing_buffer.h"

namespace nightjar::api::framing {
namespace {

using plist::Value;

std::span<const std::uint8_t> bytesOf(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string word(std::uint32_t value) {
  return {static_cast<char>(value), static_cast<char>(value >> 8), static_cast<char>(value >> 16),
          static_cast<char>(value >> 24)};
}

// A message with any header fields, followed by `body`.
std::string rawMessage(std::uint32_t type, std::uint32_t identifier, std::uint32_t length,
                       const std::string& body = {}) {
  return word(kMagic) + word(type) + word(identifier) + word(length) + body;
}

// A DICT of `length` bytes whose payload field says `payloadLength`.
std::string dict(std::uint32_t identifier, std::uint32_t length, std::uint32_t payloadLength,
                 std::string payload = {}) {
  std::string body = word(0) + word(payloadLength) + payload;
  body.resize(length >= kHeaderLength ? length - kHeaderLength : 0, '\0');
  return rawMessage(static_cast<std::uint32_t>(MessageType::Dict), identifier, length, body);
}

constexpr auto kDict = static_cast<std::uint32_t>(MessageType::Dict);
constexpr auto kNoop = static_cast<std::uint32_t>(MessageType::Noop);
constexpr auto kGoodbye = static_cast<std::uint32_t>(MessageType::Goodbye);
constexpr auto kReply = static_cast<std::uint32_t>(MessageType::Reply);

TEST(Framing, EveryLimitAtAndPastItsValue) {
  struct Case {
    std::string bytes;
    FrameStatus status;
    CloseReason reason;
  };
  const std::vector<Case> cases = {
      {rawMessage(kNoop, 1, 16), FrameStatus::Ready, CloseReason::None},
      {rawMessage(kNoop, 1, 15), FrameStatus::Close, CloseReason::TooShort},
      {dict(1, 24, 0), FrameStatus::Ready, CloseReason::None},
      {dict(1, 23, 0), FrameStatus::Close, CloseReason::TooShort},
      {rawMessage(kDict, 1, 16), FrameStatus::Close, CloseReason::TooShort},
      {dict(1, kMaxRequestLength, kMaxRequestLength - 24), FrameStatus::Ready, CloseReason::None},
      // Too long is known from the header alone, before the rest arrives.
      {rawMessage(kDict, 1, kMaxRequestLength + 1), FrameStatus::Close, CloseReason::TooLong},
      {rawMessage(kNoop, 1, 0xFFFFFFFF), FrameStatus::Close, CloseReason::TooLong},
      {dict(1, 40, 16), FrameStatus::Ready, CloseReason::None},
      {dict(1, 40, 17), FrameStatus::Close, CloseReason::PayloadPastEnd},
      {dict(1, 24, 0xFFFFFFFF), FrameStatus::Close, CloseReason::PayloadPastEnd},
      {rawMessage(kGoodbye, 1, 0), FrameStatus::Close, CloseReason::Goodbye},
      {rawMessage(kReply, 1, 20, word(0)), FrameStatus::Close, CloseReason::UnknownType},
      // Whole messages are waited for, whatever their type.
      {rawMessage(kGoodbye, 1, 17), FrameStatus::NeedMore, CloseReason::None},
      {dict(1, 100, 10).substr(0, 99), FrameStatus::NeedMore, CloseReason::None},
      {rawMessage(kNoop, 1, 16).substr(0, 15), FrameStatus::NeedMore, CloseReason::None},
  };
  for (const Case& c : cases) {
    const Frame frame = decodeRequest(bytesOf(c.bytes));
    EXPECT_EQ(std::pair(frame.status, frame.reason), std::pair(c.status, c.reason))
        << "message of " << c.bytes.size() << " bytes";
  }
}

// Feeds a stream of every kind of message the daemon reads in pieces of every
// size, decoding after each as the server does; a wrong magic is not tested
// and bytes after a payload are skipped with it.
TEST(Framing, SplitAndJoinedReadsDecodeTheSameMessages) {
  using Decoded = std::tuple<MessageType, std::uint32_t, std::string>;
  const Message request = *encodeRequest(2, Value::dictionary({{"Request", Value::string("x")}}));
  std::string stream = encodeBare(MessageType::Noop, 1) + request + dict(3, 40, 3, "abc") +
                       rawMessage(kNoop, 4, 19, "xyz") + dict(5, 24, 0);
  stream[0] = 'X';
  const std::vector<Decoded> expected = {{MessageType::Noop, 1, ""},
                                         {MessageType::Dict, 2, request.substr(kPayloadOffset)},
                                         {MessageType::Dict, 3, "abc"},
                                         {MessageType::Noop, 4, ""},
                                         {MessageType::Dict, 5, ""}};
  for (std::size_t piece = 1; piece <= stream.size(); ++piece) {
    ReadBuffer buffer;
    std::vector<Decoded> decoded;
    for (std::size_t from = 0; from < stream.size(); from += piece) {
      buffer.append(bytesOf(stream.substr(from, piece)));
      for (Frame frame = decodeRequest(buffer.bytes()); frame.status == FrameStatus::Ready;
           frame = decodeRequest(buffer.bytes())) {
        decoded.emplace_back(frame.type, frame.identifier, std::string(frame.payload));
        buffer.consume(frame.length);
      }
    }
    ASSERT_EQ(decoded, expected) << "pieces of " << piece;
    EXPECT_TRUE(buffer.empty());
    EXPECT_EQ(buffer.capacity(), 0u) << "a drained buffer keeps no memory";
  }
}

// Four little-endian words; a type travels with its first character last.
TEST(Framing, RepliesDecodeOnTheClientSide) {
  EXPECT_EQ(encodeBare(MessageType::Noop, 0x01020304),
            std::string("PAJNPOON\x04\x03\x02\x01\x10\0\0\0", 16));
  const Message empty = encodeEmptyReply(9);
  EXPECT_EQ(empty, rawMessage(kReply, 9, 20, word(0)));
  Frame frame = decodeReply(bytesOf(empty));
  EXPECT_EQ(std::tuple(frame.status, frame.identifier, frame.payload),
            std::tuple(FrameStatus::Ready, 9u, std::string_view()));

  const Value reply = Value::dictionary({{"status", Value::integer(200)}});
  const Message full = *encodeReply(10, reply);
  frame = decodeReply(bytesOf(full));
  EXPECT_EQ(std::tuple(frame.status, frame.identifier), std::tuple(FrameStatus::Ready, 10u));
  EXPECT_EQ(plist::parseXml(frame.payload), reply);
  EXPECT_EQ(full.substr(16, 4), word(0)) << "reserved word";

  EXPECT_EQ(decodeReply(bytesOf(full.substr(0, full.size() - 1))).status, FrameStatus::NeedMore);
  EXPECT_EQ(decodeReply(bytesOf(full), 100).reason, CloseReason::TooLong);
  EXPECT_EQ(decodeReply(bytesOf(encodeBare(MessageType::Noop, 1))).reason,
            CloseReason::UnknownType);
  EXPECT_EQ(decodeReply(bytesOf(rawMessage(kReply, 1, 21, word(0) + "x"))).reason,
            CloseReason::TooShort);
  EXPECT_FALSE(encodeReply(1, Value()));
}

TEST(Framing, RequestsRoundTripAndOversizedOnesAreRefused) {
  const Value request = Value::dictionary({{"Request", Value::string("build.version")},
                                           {"Authorization", Value::data(plist::Bytes(32, 1))}});
  const Message message = *encodeRequest(77, request);
  const Frame frame = decodeRequest(bytesOf(message));
  EXPECT_EQ(std::tuple(frame.status, frame.identifier, std::size_t{frame.length}),
            std::tuple(FrameStatus::Ready, 77u, message.size()));
  EXPECT_EQ(parsePayload(frame.payload), request);
  EXPECT_TRUE(parsePayload("<plist>").isNone());
  // The largest payload that still fits the daemon's limit, and one byte more.
  const std::size_t overhead = encodeRequest(0, Value::string(""))->size();
  const std::string fits(kMaxRequestLength - overhead, 'a');
  EXPECT_EQ(encodeRequest(0, Value::string(fits)).value_or("").size(), kMaxRequestLength);
  EXPECT_FALSE(encodeRequest(0, Value::string(fits + "a")));
  EXPECT_FALSE(encodeRequest(0, Value()));
}

}  // namespace
}  // namespace nightjar::api::framing
