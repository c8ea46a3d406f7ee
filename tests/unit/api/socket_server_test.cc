#include "api/socket_server.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "api/connection_quota.h"
#include "api/socket_client.h"
#include "fakes/recording_log_sink.h"
#include "platform/temporary_root.h"
#include "plist/xml.h"
#include "runloop/run_loop.h"
#include "wire/framing.h"

namespace nightjar::api::testing {
namespace {

using framing::encodeBare;
using framing::encodeRequest;
using framing::MessageType;
using plist::Value;

// One non-blocking client connection that collects what the server sends.
struct Peer {
  explicit Peer(const std::string& path) {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    connected = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  ~Peer() { close(); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  bool write(const std::string& bytes) {
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  // The whole replies received so far, in order, each as (identifier, payload).
  std::vector<std::pair<std::uint32_t, std::string>> replies() {
    char chunk[65536];
    ssize_t n = 0;
    while (fd >= 0 && (n = recv(fd, chunk, sizeof chunk, MSG_DONTWAIT)) > 0)
      received.append(chunk, static_cast<std::size_t>(n));
    closed = closed || (fd >= 0 && (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)));
    std::vector<std::pair<std::uint32_t, std::string>> out;
    std::span<const std::uint8_t> rest(reinterpret_cast<const std::uint8_t*>(received.data()),
                                       received.size());
    for (framing::Frame f = framing::decodeReply(rest); f.status == framing::FrameStatus::Ready;
         f = framing::decodeReply(rest)) {
      out.emplace_back(f.identifier, std::string(f.payload));
      rest = rest.subspan(f.length);
    }
    return out;
  }
  bool closedByServer() {
    replies();
    return closed;
  }
  void close() {
    if (fd >= 0)
      ::close(std::exchange(fd, -1));
  }

  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  bool connected = false;
  bool closed = false;
  std::string received;
};

const auto sample = [](const std::string& text) {
  return Value::dictionary({{"Request", Value::string(text)}});
};

// A server on a real run loop under a temporary root; the test writes, pumps
// the loop until what it waits for has happened, then reads.
class SocketServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(mkdir((root / "/var").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(parent().c_str(), 01777), 0);
    ASSERT_EQ(chmod(parent().c_str(), 01777), 0);
    ASSERT_NE(loop, nullptr);
  }

  std::string parent() const { return root / "/var/tmp"; }
  std::string folder() const { return root / "/var/tmp/quillon.nightjar"; }
  std::string path() const { return root / std::string(kSocketPath); }

  // Without a handler of the test's own, every request is answered with itself.
  void start(SocketRequestHandler handler = [](const Request& request, Responder responder) {
    responder.reply(request.value);
  }) {
    SocketServerFailure failure;
    server.reset(socketServerCreate(std::move(handler), path(), &failure));
    ASSERT_NE(server, nullptr) << failure.step << " " << failure.error;
  }
  // Runs the loop until `done` answers true; false when two seconds passed.
  bool pumpUntil(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (!done()) {
      if (std::chrono::steady_clock::now() > deadline)
        return false;
      sd_event_run(loop->event(), 1000);
    }
    return true;
  }
  // Runs passes that find nothing to do, so that what would happen has happened.
  void settle() {
    for (int i = 0; i < 20; ++i)
      sd_event_run(loop->event(), 1000);
  }
  std::size_t clients() const { return socketServerClientCount(server.get()); }

  nightjar::testing::TemporaryRoot root;
  std::unique_ptr<runloop::RunLoop> loop = runloop::RunLoop::create();
  SocketServerPtr server;
};

TEST_F(SocketServerTest, FolderChecksAndTheNode) {
  const auto refused = [](const std::string& at, const char* step) {
    SocketServerFailure failure;
    EXPECT_EQ(socketServerCreate({}, at, &failure), nullptr);
    EXPECT_STREQ(failure.step, step);
  };
  // A parent without the sticky bit, or not root's; a link where the folder
  // should be, which is never followed; paths too long or with no parent.
  ASSERT_EQ(chmod(parent().c_str(), 0777), 0);
  refused(path(), "parent");
  ASSERT_EQ(chmod(parent().c_str(), 01777), 0);
  ASSERT_EQ(chown(parent().c_str(), 65534, 65534), 0);
  refused(path(), "parent");
  ASSERT_EQ(chown(parent().c_str(), 0, 0), 0);
  ASSERT_EQ(symlink(root.path.c_str(), folder().c_str()), 0);
  refused(path(), "directory");
  ASSERT_EQ(unlink(folder().c_str()), 0);
  refused("/api", "path");
  refused("/" + std::string(103, 'a'), "path");
  // A folder of 0700 that is someone else's is given to root at 0755; a stale
  // file at the path is replaced by the socket, open to every user.
  ASSERT_EQ(mkdir(folder().c_str(), 0700), 0);
  ASSERT_EQ(chown(folder().c_str(), 65534, 65534), 0);
  ASSERT_EQ(close(open(path().c_str(), O_CREAT | O_WRONLY, 0600)), 0);
  start();
  struct stat status {};
  ASSERT_EQ(stat(folder().c_str(), &status), 0);
  EXPECT_EQ(std::pair(status.st_mode & 07777, status.st_uid), std::pair(0755u, 0u));
  ASSERT_EQ(stat(path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & (S_IFMT | 0777), S_IFSOCK | 0777u);
  // Destruction removes the node and keeps the folder.
  server.reset();
  EXPECT_NE(access(path().c_str(), F_OK), 0);
  EXPECT_EQ(access(folder().c_str(), F_OK), 0);
}

// Each request is answered with itself and its peer's credentials.
TEST_F(SocketServerTest, AnswersNoopAndDictSentByteByByteWithTheirIdentifiersAndPeer) {
  const auto withPeer = [](const Value& value, pid_t pid, uid_t uid, gid_t gid) {
    return Value::array({value, Value::integer(pid), Value::integer(uid), Value::integer(gid)});
  };
  start([&](const Request& request, Responder responder) {
    responder.reply(withPeer(request.value, request.peer.pid, request.peer.uid, request.peer.gid));
  });
  Peer peer(path());
  for (char byte : encodeBare(MessageType::Noop, 41) + *encodeRequest(42, sample("a"))) {
    ASSERT_TRUE(peer.write(std::string(1, byte)));
    sd_event_run(loop->event(), 0);
  }
  ASSERT_TRUE(pumpUntil([&] { return peer.replies().size() == 2; }));
  EXPECT_EQ(peer.received.substr(0, 20), framing::encodeEmptyReply(41));
  EXPECT_EQ(peer.replies()[1].first, 42u);
  EXPECT_EQ(plist::parseXml(peer.replies()[1].second),
            withPeer(sample("a"), getpid(), getuid(), getgid()));
}

// A message the framing refuses closes its connection (the rules are the
// framing's own tests). An unparsable request, or one its handler leaves
// unanswered, gets no reply; a late answer holds its own client only, in order,
// and goes nowhere when its peer has vanished, as one cut mid-message does.
TEST_F(SocketServerTest, BadLateUnparsableOrUnansweredRequestsAndVanishedPeers) {
  std::map<std::string, Responder> waiting;
  start([&waiting](const Request& request, Responder responder) {
    const std::string text = *request.value.get("Request").asString();
    if (text == "slow" || text == "left")
      waiting.emplace(text, responder);
    else if (text != "ignored")
      responder.reply(request.value);
  });
  Peer bad(path());
  std::string unknownType = encodeBare(MessageType::Noop, 1);
  unknownType[4] = 'X';
  ASSERT_TRUE(bad.write(unknownType));
  EXPECT_TRUE(pumpUntil([&] { return bad.closedByServer() && clients() == 0; }));
  EXPECT_TRUE(bad.replies().empty());
  Peer slow(path());
  Peer other(path());
  auto cut = std::make_unique<Peer>(path());
  auto left = std::make_unique<Peer>(path());
  ASSERT_TRUE(cut->write(encodeRequest(1, sample("cut"))->substr(0, 30)));
  ASSERT_TRUE(left->write(*encodeRequest(1, sample("left"))));
  ASSERT_TRUE(slow.write(*encodeRequest(1, sample("slow")) + *encodeRequest(2, sample("after")) +
                         encodeBare(MessageType::Noop, 3)));
  ASSERT_TRUE(pumpUntil([&] { return waiting.size() == 2; }));
  cut.reset();
  left.reset();
  ASSERT_TRUE(other.write(*framing::encodePayloadMessage(MessageType::Dict, 7, "<plist>") +
                          *encodeRequest(8, sample("ignored")) +
                          *encodeRequest(9, sample("quick"))));
  ASSERT_TRUE(pumpUntil([&] { return other.replies().size() == 1 && clients() == 3; }));
  EXPECT_EQ(other.replies()[0].first, 9u);
  waiting.at("left").reply(Value::string("late"));
  EXPECT_TRUE(pumpUntil([&] { return clients() == 2; }));
  settle();
  EXPECT_TRUE(slow.replies().empty());
  EXPECT_FALSE(other.closedByServer());

  waiting.at("slow").reply(Value::string("late"));
  waiting.at("slow").reply(Value::string("twice"));  // only the first answer counts
  ASSERT_TRUE(pumpUntil([&] { return slow.replies().size() == 3; }));
  EXPECT_EQ(slow.replies()[0].first, 1u);
  EXPECT_EQ(plist::parseXml(slow.replies()[0].second), Value::string("late"));
  EXPECT_EQ(slow.replies()[1].first, 2u);
  EXPECT_EQ(slow.replies()[2].first, 3u);
}

// Destruction closes every connection.
TEST_F(SocketServerTest, HeldRepliesLeaveOnRelease) {
  start();
  Peer peer(path());
  socketServerHoldReplies(server.get());
  ASSERT_TRUE(peer.write(*encodeRequest(1, sample("one")) + encodeBare(MessageType::Noop, 2)));
  settle();
  EXPECT_TRUE(peer.replies().empty());
  EXPECT_TRUE(socketServerRepliesHeld(server.get()));
  // The held reply is written by the release itself; the rest follows.
  socketServerReleaseReplies(server.get());
  EXPECT_EQ(peer.replies().size(), 1u);
  ASSERT_TRUE(pumpUntil([&] { return peer.replies().size() == 2; }));
  EXPECT_FALSE(socketServerRepliesHeld(server.get()));
  server.reset();
  EXPECT_TRUE(peer.closedByServer());
}

TEST_F(SocketServerTest, OutOfDescriptorsAcceptingPausesInsteadOfSpinning) {
#if defined(__SANITIZE_ADDRESS__)
  // The sanitizers' runtime opens descriptors of its own to check the log
  // sink's type, and fails with the process out of them.
  GTEST_SKIP() << "needs every descriptor for the server; runs in the plain build";
#endif
  nightjar::testing::RecordingLogSink log;
  start();
  // The descriptor limit leaves six unused numbers: four peers and two
  // accepted connections.
  rlimit saved{};
  getrlimit(RLIMIT_NOFILE, &saved);
  int fd = 0;
  for (int unused = 0; unused < 6; ++fd)
    unused += fcntl(fd, F_GETFD) == -1 ? 1 : 0;
  rlimit lowered = saved;
  lowered.rlim_cur = static_cast<rlim_t>(fd);
  setrlimit(RLIMIT_NOFILE, &lowered);
  std::vector<std::unique_ptr<Peer>> peers;
  for (std::uint32_t i = 0; i < 4; ++i) {
    peers.push_back(std::make_unique<Peer>(path()));
    ASSERT_TRUE(peers.back()->connected);
    ASSERT_TRUE(peers.back()->write(encodeBare(MessageType::Noop, i)));
  }
  ASSERT_TRUE(pumpUntil([&] { return clients() == 2; }));
  // Paused: the loop sleeps between retries instead of failing accept over
  // and over, and a lasting shortage is logged once.
  int passes = 0;
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(150);
  for (; std::chrono::steady_clock::now() < until; ++passes)
    sd_event_run(loop->event(), 10000);
  EXPECT_LT(passes, 50);
  EXPECT_EQ(log.texts(),
            std::vector<std::string>{"accept: Unable to accept connection; error: 24"});
  // Closing served peers frees descriptors, and the rest are taken.
  peers[0]->close();
  peers[1]->close();
  EXPECT_TRUE(pumpUntil(
      [&] { return peers[2]->replies().size() == 1 && peers[3]->replies().size() == 1; }));
  EXPECT_EQ(log.lines.size(), 1u);
  setrlimit(RLIMIT_NOFILE, &saved);
}

// One connection over a socket pair with small buffers: the client end is the
// server's, the other end is the test's. Requests are answered with
// themselves.
class SocketClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
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
    callbacks.handler = std::make_shared<const SocketRequestHandler>(
        [](const Request& request, Responder responder) { responder.reply(request.value); });
    client = socketClientCreate(*loop, ends[0], std::move(callbacks));
    ASSERT_NE(client, nullptr);
  }
  void TearDown() override {
    if (client != nullptr)
      socketClientDestroy(*client);
    close(other);
  }

  std::unique_ptr<runloop::RunLoop> loop = runloop::RunLoop::create();
  ReplyGate gate;
  std::shared_ptr<SocketClient> client;
  int other = -1;
  int closed = 0;
};

TEST_F(SocketClientTest, AFullSocketWaitsForOneWritabilityEventAndResumesMidMessage) {
  // Large enough that the small buffers take only part of the first one.
  const framing::Message first(50000, 'a');
  const framing::Message second(30000, 'b');
  ASSERT_TRUE(socketClientSend(*client, first));
  ASSERT_TRUE(socketClientSend(*client, second));
  EXPECT_TRUE(client->waitingForWritable);
  EXPECT_GT(client->writeOffset, 0u);
  std::string received;
  char chunk[65536];
  for (int i = 0; i < 1000 && received.size() < first.size() + second.size(); ++i) {
    for (ssize_t n; (n = recv(other, chunk, sizeof chunk, MSG_DONTWAIT)) > 0;)
      received.append(chunk, static_cast<std::size_t>(n));
    sd_event_run(loop->event(), 1000);
  }
  EXPECT_EQ(received, first + second);
  EXPECT_TRUE(client->replyQueue.empty());
  EXPECT_FALSE(client->waitingForWritable);
  EXPECT_EQ(closed, 0);
}

// A peer that never reads: once 100 replies wait unsent, the next request
// closes it, whether a NOOP's or a DICT's reply would have been the 101st.
// The waiting replies' bytes are bounded too, beside one reply of any size.
TEST_F(SocketClientTest, TheReplyQueueIsBoundedInCountAndBytes) {
  for (const std::string& last :
       {encodeBare(MessageType::Noop, 1), *encodeRequest(1, sample("x"))}) {
    closed = 0;
    ASSERT_TRUE(socketClientSend(*client, framing::Message(50000, 'a')));
    for (std::uint32_t i = 1; i < framing::kMaxUnsentReplies; ++i)
      ASSERT_TRUE(socketClientSend(*client, framing::encodeEmptyReply(i)));
    ASSERT_EQ(send(other, last.data(), last.size(), 0), static_cast<ssize_t>(last.size()));
    for (int i = 0; i < 1000 && closed == 0; ++i)
      sd_event_run(loop->event(), 1000);
    EXPECT_EQ(closed, 1);
    socketClientDestroy(*client);
    EXPECT_EQ(closed, 1) << "destroying twice notifies once";
    EXPECT_EQ(client->descriptor, -1);
    TearDown();
    SetUp();
  }
  gate.held = true;
  for (int i = 0; i < 4; ++i)
    ASSERT_TRUE(socketClientSend(*client, framing::Message(kMaxUnsentReplyBytes / 4, 'q'))) << i;
  EXPECT_FALSE(socketClientSend(*client, framing::encodeEmptyReply(5)));
  TearDown();
  SetUp();
  gate.held = true;
  EXPECT_TRUE(socketClientSend(*client, framing::Message(kMaxUnsentReplyBytes + 1, 'a')));
  EXPECT_FALSE(socketClientSend(*client, framing::encodeEmptyReply(1)));
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
