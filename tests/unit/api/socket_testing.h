// A socket server on a real run loop under a temporary root, and peers that
// talk to it from the same thread: the test writes, pumps the loop until what
// it waits for has happened, then reads.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "api/socket_server.h"
#include "platform/temporary_root.h"
#include "runloop/run_loop.h"
#include "wire/framing.h"

namespace nightjar::api::testing {

// One client connection, non-blocking, that collects what the server sends.
struct Peer {
  explicit Peer(const std::string& socketPath) : path(socketPath) { connect(); }
  ~Peer() { close(); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  // Tries again to connect; a full backlog refuses a non-blocking connect
  // until the server has taken what waits.
  bool connect() {
    if (!connected && fd >= 0) {
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
      connected = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    return connected;
  }
  // Writes all of `bytes` unless the socket buffer fills.
  bool write(const std::string& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
      const ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (n <= 0)
        return false;
      done += static_cast<std::size_t>(n);
    }
    return true;
  }
  // Takes whatever has arrived; notes when the server closed the connection.
  void collect() {
    char chunk[65536];
    ssize_t n = 0;
    while (fd >= 0 && (n = recv(fd, chunk, sizeof chunk, MSG_DONTWAIT)) > 0)
      received.append(chunk, static_cast<std::size_t>(n));
    if (fd >= 0 && (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)))
      closed = true;
  }
  // The whole replies received so far, in order, each as (identifier, payload).
  std::vector<std::pair<std::uint32_t, std::string>> replies() {
    collect();
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
    collect();
    return closed;
  }
  void close() {
    if (fd >= 0)
      ::close(std::exchange(fd, -1));
  }

  std::string path;
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  bool connected = false;
  bool closed = false;
  std::string received;
};

class SocketServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(root.path.empty());
    ASSERT_EQ(mkdir((root / "/var").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(parent().c_str(), 0755), 0);
    ASSERT_EQ(chmod(parent().c_str(), 01777), 0);
    loop = runloop::RunLoop::create();
    ASSERT_NE(loop, nullptr);
  }
  void TearDown() override {
    server.reset();
    loop.reset();
  }

  std::string parent() const { return root / "/var/tmp"; }
  std::string folder() const { return root / "/var/tmp/quillon.nightjar"; }
  std::string path() const { return root / std::string(kSocketPath); }

  // Starts the server with `handler`; a test that needs no handler of its own
  // gets one that answers every request with itself.
  void start(SocketRequestHandler handler = {}) {
    if (!handler) {
      handler = [](const Request& request, Responder responder) { responder.reply(request.value); };
    }
    SocketServerFailure failure;
    server.reset(socketServerCreate(std::move(handler), path(), &failure));
    ASSERT_NE(server, nullptr) << failure.step << " " << failure.error;
  }

  // Runs the loop until `done` answers true; false when two seconds passed.
  bool pumpUntil(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (!done()) {
      if (std::chrono::steady_clock::now() > deadline) {
        return false;
      }
      sd_event_run(loop->event(), 1000);
    }
    return true;
  }
  // A peer connected once the server has taken the connections before it.
  std::unique_ptr<Peer> connectedPeer() {
    auto peer = std::make_unique<Peer>(path());
    EXPECT_TRUE(pumpUntil([&] { return peer->connect(); }));
    return peer;
  }

  // Runs the loop for `passes` passes that find nothing to do, so that what
  // would happen has happened.
  void settle(int passes = 20) {
    for (int i = 0; i < passes; ++i) {
      sd_event_run(loop->event(), 1000);
    }
  }

  nightjar::testing::TemporaryRoot root;
  std::unique_ptr<runloop::RunLoop> loop;
  SocketServerPtr server;
};

inline std::string xmlOf(const plist::Value& value) {
  return framing::encodeRequest(0, value)->substr(framing::kPayloadOffset);
}

}  // namespace nightjar::api::testing
