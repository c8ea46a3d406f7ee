#include "api/socket_client.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "runloop/run_loop.h"

namespace nightjar::api {
namespace {

// One connection over a socket pair: the client end is the server's, the
// other end is the test's.
class SocketClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    loop = runloop::RunLoop::create();
    ASSERT_NE(loop, nullptr);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    other = ends[1];
    int buffer = 4096;
    setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
    setsockopt(other, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
    SocketClientCallbacks callbacks;
    callbacks.gate = &gate;
    callbacks.closeNotifier = [this](SocketClient&) { ++closed; };
    client = socketClientCreate(*loop, ends[0], std::move(callbacks));
    ASSERT_NE(client, nullptr);
  }
  void TearDown() override {
    if (client != nullptr) {
      socketClientDestroy(*client);
    }
    close(other);
  }

  std::string drain() {
    std::string out;
    char chunk[65536];
    for (ssize_t n; (n = recv(other, chunk, sizeof chunk, MSG_DONTWAIT)) > 0;) {
      out.append(chunk, static_cast<std::size_t>(n));
    }
    return out;
  }

  std::unique_ptr<runloop::RunLoop> loop;
  ReplyGate gate;
  std::shared_ptr<SocketClient> client;
  int other = -1;
  int closed = 0;
};

TEST_F(SocketClientTest, TheReplyQueueHoldsAHundredAndRefusesTheNext) {
  gate.held = true;  // nothing leaves, so every reply stays queued
  for (std::uint32_t i = 0; i < framing::kMaxUnsentReplies; ++i) {
    ASSERT_TRUE(socketClientSend(*client, framing::encodeEmptyReply(i))) << i;
  }
  EXPECT_FALSE(socketClientSend(*client, framing::encodeEmptyReply(100)));
  EXPECT_EQ(client->replyQueue.size(), 100u);
  EXPECT_EQ(drain(), "");

  gate.held = false;
  socketClientRelease(*client);
  std::string expected;
  for (std::uint32_t i = 0; i < 100; ++i) {
    expected += framing::encodeEmptyReply(i);
  }
  std::string received = drain();
  for (int i = 0; i < 1000 && received.size() < expected.size(); ++i) {
    sd_event_run(loop->event(), 1000);
    received += drain();
  }
  EXPECT_EQ(received, expected);
  EXPECT_TRUE(client->replyQueue.empty());
}

TEST_F(SocketClientTest, TheReplyQueueHoldsAtMostItsBytesBesideOneReplyOfAnySize) {
  gate.held = true;
  for (int i = 0; i < 4; ++i) {
    ASSERT_TRUE(socketClientSend(*client, framing::Message(kMaxUnsentReplyBytes / 4, 'q'))) << i;
  }
  EXPECT_FALSE(socketClientSend(*client, framing::encodeEmptyReply(5)));
  TearDown();  // a fresh connection: one reply above the bound is taken when none waits
  SetUp();
  gate.held = true;
  EXPECT_TRUE(socketClientSend(*client, framing::Message(kMaxUnsentReplyBytes + 1, 'a')));
  EXPECT_FALSE(socketClientSend(*client, framing::encodeEmptyReply(1)));
}

TEST_F(SocketClientTest, AFullSocketWaitsForOneWritabilityEventAndResumesMidMessage) {
  // Large enough that the small buffers take only part of the first one.
  const framing::Message first(50000, 'a');
  const framing::Message second(30000, 'b');
  ASSERT_TRUE(socketClientSend(*client, first));
  ASSERT_TRUE(socketClientSend(*client, second));
  EXPECT_TRUE(client->waitingForWritable);
  EXPECT_GT(client->writeOffset, 0u);
  EXPECT_EQ(client->replyQueue.size(), 2u);

  std::string received;
  for (int i = 0; i < 1000 && received.size() < first.size() + second.size(); ++i) {
    received += drain();
    sd_event_run(loop->event(), 1000);
  }
  received += drain();
  EXPECT_EQ(received, first + second);
  EXPECT_TRUE(client->replyQueue.empty());
  EXPECT_FALSE(client->waitingForWritable);
  EXPECT_EQ(closed, 0);
}

TEST_F(SocketClientTest, AWriteToAVanishedPeerClosesTheConnection) {
  close(other);
  other = -1;
  EXPECT_FALSE(socketClientSend(*client, framing::encodeEmptyReply(1)));
  socketClientDestroy(*client);
  EXPECT_EQ(closed, 1);
  socketClientDestroy(*client);
  EXPECT_EQ(closed, 1) << "destroying twice notifies once";
  EXPECT_EQ(client->descriptor, -1);
}

}  // namespace
}  // namespace nightjar::api
