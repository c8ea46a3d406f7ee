#include "api/socket_server.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <optional>

#include "api/connection_quota.h"
#include "api/socket_client.h"
#include "api/socket_testing.h"
#include "fakes/recording_log_sink.h"
#include "plist/xml.h"

namespace nightjar::api::testing {
namespace {

using framing::encodeBare;
using framing::encodeRequest;
using framing::MessageType;
using plist::Value;

Value sample(const std::string& text) {
  return Value::dictionary({{"Request", Value::string(text)}});
}

std::string rawHeader(std::uint32_t type, std::uint32_t identifier, std::uint32_t length) {
  std::string message = encodeBare(MessageType::Noop, identifier);
  for (int i = 0; i < 4; ++i) {
    message[4 + i] = static_cast<char>(type >> (8 * i));
    message[12 + i] = static_cast<char>(length >> (8 * i));
  }
  return message;
}

TEST_F(SocketServerTest, FolderChecksAndTheNode) {
  // A parent without the sticky bit, or not root's, is refused.
  ASSERT_EQ(chmod(parent().c_str(), 0777), 0);
  SocketServerFailure failure;
  EXPECT_EQ(socketServerCreate({}, path(), &failure), nullptr);
  EXPECT_STREQ(failure.step, "parent");
  ASSERT_EQ(chmod(parent().c_str(), 01777), 0);
  ASSERT_EQ(chown(parent().c_str(), 65534, 65534), 0);
  EXPECT_EQ(socketServerCreate({}, path(), &failure), nullptr);
  EXPECT_STREQ(failure.step, "parent");
  ASSERT_EQ(chown(parent().c_str(), 0, 0), 0);
  // A link where the folder should be is never followed.
  ASSERT_EQ(symlink(root.path.c_str(), folder().c_str()), 0);
  EXPECT_EQ(socketServerCreate({}, path(), &failure), nullptr);
  EXPECT_STREQ(failure.step, "directory");
  ASSERT_EQ(unlink(folder().c_str()), 0);
  // Paths too long or without a folder and a parent to cut.
  EXPECT_EQ(socketServerCreate({}, "/api", &failure), nullptr);
  EXPECT_STREQ(failure.step, "path");
  EXPECT_EQ(socketServerCreate({}, "/" + std::string(103, 'a'), &failure), nullptr);
  EXPECT_STREQ(failure.step, "path");

  // A folder of 0700 that is someone else's is given to root at 0755; a stale
  // file at the path is replaced by the socket, open to every user.
  ASSERT_EQ(mkdir(folder().c_str(), 0700), 0);
  ASSERT_EQ(chown(folder().c_str(), 65534, 65534), 0);
  ASSERT_EQ(close(open(path().c_str(), O_CREAT | O_WRONLY, 0600)), 0);
  start();
  struct stat status {};
  ASSERT_EQ(stat(folder().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0755u);
  EXPECT_EQ(status.st_uid, 0u);
  ASSERT_EQ(stat(path().c_str(), &status), 0);
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(status.st_mode & 0777, 0777u);

  // Destruction removes the node and keeps the folder.
  server.reset();
  EXPECT_NE(access(path().c_str(), F_OK), 0);
  EXPECT_EQ(access(folder().c_str(), F_OK), 0);
}

TEST_F(SocketServerTest, AnswersNoopAndDictWithTheRequestsIdentifierAndPeer) {
  std::vector<Request> seen;
  start([&seen](const Request& request, Responder responder) {
    seen.push_back(request);
    responder.reply(Value::dictionary({{"status", Value::integer(200)}}));
  });
  Peer peer(path());
  ASSERT_TRUE(peer.connected);
  ASSERT_TRUE(peer.write(encodeBare(MessageType::Noop, 41) + *encodeRequest(42, sample("a"))));
  ASSERT_TRUE(pumpUntil([&] { return peer.replies().size() == 2; }));
  EXPECT_EQ(peer.received.substr(0, 20), framing::encodeEmptyReply(41));
  EXPECT_EQ(peer.replies()[1].first, 42u);
  EXPECT_EQ(plist::parseXml(peer.replies()[1].second),
            Value::dictionary({{"status", Value::integer(200)}}));
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].value, sample("a"));
  EXPECT_EQ(seen[0].peer.pid, getpid());
  EXPECT_EQ(seen[0].peer.uid, getuid());
  EXPECT_EQ(seen[0].peer.gid, getgid());
}

TEST_F(SocketServerTest, ARequestSentByteByByteIsAnsweredOnce) {
  int calls = 0;
  start([&calls](const Request& request, Responder responder) {
    ++calls;
    responder.reply(request.value);
  });
  Peer peer(path());
  const std::string first = *encodeRequest(1, sample("first"));
  for (char byte : first) {
    ASSERT_TRUE(peer.write(std::string(1, byte)));
    sd_event_run(loop->event(), 0);
  }
  ASSERT_TRUE(pumpUntil([&] { return peer.replies().size() == 1; }));
  EXPECT_EQ(calls, 1);
}

TEST_F(SocketServerTest, EveryRuleThatClosesTheConnection) {
  start();
  // Each rule of the framing is in its own tests; too long closes once the
  // header is in, before the rest is sent.
  const std::vector<std::pair<std::string, std::string>> faults = {
      {"unknown type", rawHeader(0x41424344, 1, 16)},
      {"GDBY", encodeBare(MessageType::Goodbye, 1)},
      {"length 102401", rawHeader(0x44494354, 1, 102401)},
  };
  for (const auto& [name, bytes] : faults) {
    Peer peer(path());
    ASSERT_TRUE(peer.write(bytes)) << name;
    EXPECT_TRUE(pumpUntil([&] { return peer.closedByServer(); })) << name;
    EXPECT_TRUE(peer.replies().empty()) << name;
  }
  EXPECT_TRUE(pumpUntil([&] { return socketServerClientCount(server.get()) == 0; }));

  // 102400 is accepted: a request padded to the limit is answered.
  std::string longest = *encodeRequest(5, sample("long"));
  const std::size_t padding = framing::kMaxRequestLength - longest.size();
  longest = rawHeader(0x44494354, 5, framing::kMaxRequestLength) + longest.substr(16) +
            std::string(padding, ' ');
  Peer peer(path());
  ASSERT_TRUE(peer.write(longest));
  EXPECT_TRUE(pumpUntil([&] { return peer.replies().size() == 1; }));
  EXPECT_FALSE(peer.closedByServer());
}

TEST_F(SocketServerTest, UnparsableOrUnansweredRequestsGetNoReplyAndTheConnectionGoesOn) {
  start([](const Request& request, Responder responder) {
    if (request.value == sample("answer")) {
      responder.reply(request.value);
    }
    // Otherwise the responder goes unanswered: no reply, next message.
  });
  Peer peer(path());
  ASSERT_TRUE(peer.write(*framing::encodePayloadMessage(MessageType::Dict, 1, "<plist>") +
                         *encodeRequest(2, sample("ignored")) +
                         *encodeRequest(3, sample("answer"))));
  ASSERT_TRUE(pumpUntil([&] { return peer.replies().size() == 1; }));
  EXPECT_EQ(peer.replies()[0].first, 3u);
  EXPECT_FALSE(peer.closedByServer());
}

TEST_F(SocketServerTest, LateAnswersHoldThatClientOnlyAndKeepItsOrder) {
  std::vector<Responder> waiting;
  start([&waiting](const Request& request, Responder responder) {
    if (request.value == sample("slow")) {
      waiting.push_back(responder);
    } else {
      responder.reply(request.value);
    }
  });
  Peer slow(path());
  Peer other(path());
  ASSERT_TRUE(slow.write(*encodeRequest(1, sample("slow")) + *encodeRequest(2, sample("after")) +
                         encodeBare(MessageType::Noop, 3)));
  ASSERT_TRUE(pumpUntil([&] { return waiting.size() == 1; }));
  // The other client is served while the first waits for its answer.
  ASSERT_TRUE(other.write(*encodeRequest(9, sample("quick"))));
  ASSERT_TRUE(pumpUntil([&] { return other.replies().size() == 1; }));
  settle();
  EXPECT_TRUE(slow.replies().empty());

  waiting[0].reply(Value::string("late"));
  waiting[0].reply(Value::string("twice"));  // only the first answer counts
  ASSERT_TRUE(pumpUntil([&] { return slow.replies().size() == 3; }));
  EXPECT_EQ(slow.replies()[0].first, 1u);
  EXPECT_EQ(plist::parseXml(slow.replies()[0].second), Value::string("late"));
  EXPECT_EQ(slow.replies()[1].first, 2u);
  EXPECT_EQ(slow.replies()[2].first, 3u);
}

TEST_F(SocketServerTest, HeldRepliesLeaveOnRelease) {
  start();
  Peer peer(path());
  socketServerHoldReplies(server.get());
  ASSERT_TRUE(peer.write(*encodeRequest(1, sample("one")) + encodeBare(MessageType::Noop, 2)));
  settle();
  EXPECT_TRUE(peer.replies().empty());
  EXPECT_TRUE(socketServerRepliesHeld(server.get()));

  // Released: the held reply leaves and the rest follows at once.
  socketServerReleaseReplies(server.get());
  EXPECT_EQ(peer.replies().size(), 1u) << "the held reply is written by the release itself";
  ASSERT_TRUE(pumpUntil([&] { return peer.replies().size() == 2; }));
  EXPECT_EQ(peer.replies()[1].first, 2u);
  EXPECT_FALSE(socketServerRepliesHeld(server.get()));
}

TEST_F(SocketServerTest, PeersThatVanishOrNeverRead) {
  std::optional<Responder> kept;
  const std::string big(20000, 'x');  // a hundred stay below the byte bound
  start([&](const Request& request, Responder responder) {
    if (request.value == sample("keep")) {
      kept = responder;
    } else {
      responder.reply(Value::string(big));
    }
  });
  // Vanishes in the middle of a message.
  auto halfway = std::make_unique<Peer>(path());
  ASSERT_TRUE(halfway->write(encodeRequest(1, sample("cut"))->substr(0, 30)));
  // Vanishes while its request is with the handler; the late answer goes nowhere.
  auto waiting = std::make_unique<Peer>(path());
  ASSERT_TRUE(waiting->write(*encodeRequest(2, sample("keep"))));
  ASSERT_TRUE(pumpUntil([&] { return kept.has_value(); }));
  halfway.reset();
  waiting.reset();
  ASSERT_TRUE(pumpUntil([&] { return socketServerClientCount(server.get()) == 1; }));
  kept->reply(Value::string("late"));
  ASSERT_TRUE(pumpUntil([&] { return socketServerClientCount(server.get()) == 0; }));

  // Never reads: once 100 replies wait unsent, the next one closes it.
  Peer reader(path());
  Peer sink(path());
  int receive = 4096;
  ASSERT_EQ(setsockopt(sink.fd, SOL_SOCKET, SO_RCVBUF, &receive, sizeof receive), 0);
  const std::string request = *encodeRequest(3, sample("big"));
  int sent = 0;
  ASSERT_TRUE(pumpUntil([&] {
    if (sent < 400 && sink.write(request)) {
      ++sent;
    }
    return socketServerClientCount(server.get()) == 1;
  }));
  EXPECT_GT(sent, 100);
  // The server stayed responsive to everyone else meanwhile.
  ASSERT_TRUE(reader.write(encodeBare(MessageType::Noop, 4)));
  EXPECT_TRUE(pumpUntil([&] { return reader.replies().size() == 1; }));
}

TEST_F(SocketServerTest, ManyConnectionsAreServedAndDestructionClosesThemAll) {
  start();
  std::vector<std::unique_ptr<Peer>> peers;
  for (std::uint32_t i = 0; i < 300; ++i) {
    peers.push_back(connectedPeer());
    ASSERT_TRUE(peers.back()->write(encodeBare(MessageType::Noop, i)));
  }
  ASSERT_TRUE(pumpUntil([&] {
    for (const auto& peer : peers) {
      if (peer->replies().size() != 1) {
        return false;
      }
    }
    return true;
  }));
  EXPECT_EQ(socketServerClientCount(server.get()), 300u);
  server.reset();
  for (const auto& peer : peers) {
    EXPECT_TRUE(peer->closedByServer());
  }
}

// Restores the process's descriptor limit when it goes.
struct DescriptorLimit {
  explicit DescriptorLimit(rlim_t soft) {
    getrlimit(RLIMIT_NOFILE, &saved);
    rlimit lowered = saved;
    lowered.rlim_cur = soft;
    setrlimit(RLIMIT_NOFILE, &lowered);
  }
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &saved); }
  rlimit saved{};
};

// The lowest limit that leaves exactly `room` unused descriptor numbers.
rlim_t limitLeaving(int room) {
  int unused = 0;
  int fd = 0;
  for (; unused < room; ++fd) {
    if (fcntl(fd, F_GETFD) == -1) {
      ++unused;
    }
  }
  return static_cast<rlim_t>(fd);
}

TEST_F(SocketServerTest, OutOfDescriptorsAcceptingPausesInsteadOfSpinning) {
#if defined(__SANITIZE_ADDRESS__)
  // The sanitizers' runtime opens descriptors of its own to check the log
  // sink's type, and fails with the process out of them.
  GTEST_SKIP() << "needs every descriptor for the server; runs in the plain build";
#endif
  nightjar::testing::RecordingLogSink log;
  start();
  // Room for four peers and two accepted connections, no more.
  DescriptorLimit limit(limitLeaving(6));
  std::vector<std::unique_ptr<Peer>> peers;
  for (std::uint32_t i = 0; i < 4; ++i) {
    peers.push_back(std::make_unique<Peer>(path()));
    ASSERT_TRUE(peers.back()->connected);
    ASSERT_TRUE(peers.back()->write(encodeBare(MessageType::Noop, i)));
  }
  ASSERT_TRUE(pumpUntil([&] { return socketServerClientCount(server.get()) == 2; }));
  // Paused: the loop sleeps instead of failing accept over and over.
  int passes = 0;
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
  while (std::chrono::steady_clock::now() < until) {
    sd_event_run(loop->event(), 10000);
    ++passes;
  }
  EXPECT_LT(passes, 100);
  EXPECT_EQ(log.texts(),
            std::vector<std::string>{"accept: Unable to accept connection; error: 24"});

  // Closing served peers frees descriptors, and the rest are taken.
  peers[0]->close();
  peers[1]->close();
  ASSERT_TRUE(pumpUntil(
      [&] { return peers[2]->replies().size() == 1 && peers[3]->replies().size() == 1; }));
  EXPECT_EQ(log.lines.size(), 1u);
}

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

TEST(SocketQuotaTest, EachUserHoldsAtMostItsCapAndOnlyRootTakesTheReserve) {
  ConnectionQuota quota;
  const DescriptorRoom plenty{.limit = 1024, .inUse = 10};
  for (std::size_t i = 0; i < kConnectionsPerUser; ++i)
    ASSERT_EQ(quota.admit(1000, plenty), Admission::Admitted) << i;
  EXPECT_EQ(quota.admit(1000, plenty), Admission::OverUserCap);
  EXPECT_EQ(quota.admit(1001, plenty), Admission::Admitted);
  quota.release(1000);
  EXPECT_EQ(quota.admit(1000, plenty), Admission::Admitted);
  const std::size_t edge = 1024 - kReservedDescriptors;
  EXPECT_EQ(quota.admit(1002, {.limit = 1024, .inUse = edge}), Admission::Admitted);
  EXPECT_EQ(quota.admit(1002, {.limit = 1024, .inUse = edge + 1}), Admission::OutOfDescriptors);
  EXPECT_EQ(quota.admit(0, {.limit = 1024, .inUse = 1024}), Admission::Admitted);
}

}  // namespace
}  // namespace nightjar::api::testing
