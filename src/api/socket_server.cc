#include "api/socket_server.h"

#include <dirent.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <unordered_map>
#include <vector>

#include "api/connection_quota.h"
#include "api/socket_client.h"
#include "api/socket_node.h"
#include "logging/logging.h"
#include "runloop/run_loop.h"

namespace nightjar::api {

struct SocketServer {
  std::string path;
  std::unordered_map<SocketClient*, std::shared_ptr<SocketClient>> clients;
  int listenDescriptor = -1;
  std::unique_ptr<runloop::Source> listenSource;
  std::shared_ptr<const SocketRequestHandler> handler;
  runloop::RunLoop* loop = nullptr;
  ReplyGate gate;
  // Accepting pauses while the process is out of descriptors: the listening
  // socket stays readable, so going on would spin. It resumes when a
  // connection closes or this timer fires.
  std::unique_ptr<runloop::Timer> acceptRetry;
  bool acceptPaused = false;
  // When the last shortage was logged: a shortage that lasts logs once a
  // minute, not once per retry.
  std::optional<runloop::AbsoluteTime> shortageLogged;
  ConnectionQuota quota;
  std::size_t ownDescriptors = 0;  // open when listening began: the daemon's own files
};

namespace {

// Connections taken per wake-up, so that a flood of connects cannot keep the
// loop from everything else.
constexpr int kAcceptsPerWakeup = 16;
constexpr double kAcceptRetrySeconds = 0.1;
constexpr double kShortageLogSeconds = 60;

void resumeAccepting(SocketServer& server) {
  if (!server.acceptPaused) {
    return;
  }
  server.acceptPaused = false;
  server.acceptRetry->park();
  sd_event_source_set_enabled(server.listenSource->get(), SD_EVENT_ON);
}

// Logged on purpose, once a minute: a shortage starves every client, root's too.
void logShortage(SocketServer& server, int error) {
  const runloop::AbsoluteTime now = runloop::systemClock().now();
  if (!server.shortageLogged || now - *server.shortageLogged >= kShortageLogSeconds ||
      now < *server.shortageLogged) {
    logging::logMessage(LOG_ERR, "%s: Unable to accept connection; error: %d", "accept", error);
    server.shortageLogged = now;
  }
}

void pauseAccepting(SocketServer& server, int error) {
  logShortage(server, error);
  server.acceptPaused = true;
  sd_event_source_set_enabled(server.listenSource->get(), SD_EVENT_OFF);
  server.acceptRetry->setNextFireDate(runloop::systemClock().now() + kAcceptRetrySeconds);
}

std::size_t countOpenDescriptors() {
  DIR* folder = opendir("/proc/self/fd");
  if (folder == nullptr) {
    return 0;
  }
  std::size_t count = 0;
  while (const dirent* entry = readdir(folder)) {
    count += entry->d_name[0] != '.' ? 1 : 0;
  }
  closedir(folder);
  return count > 0 ? count - 1 : 0;  // not the one that read the folder
}

// Counted are the daemon's own, every connection and the new one; and never
// fewer than the new descriptor's number says, since every lower one is taken.
DescriptorRoom roomFor(const SocketServer& server, int descriptor) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const std::size_t counted = server.ownDescriptors + server.clients.size() + 1;
  return {static_cast<std::size_t>(limit.rlim_cur),
          std::max(counted, static_cast<std::size_t>(descriptor) + 1)};
}

// A connection over its user's share or into the reserve is closed at once,
// as a faulty one is; only a shortage is logged.
bool admit(SocketServer& server, int descriptor) {
  platform::PeerCredentials peer;
  if (!socketPeerCredentials(descriptor, peer)) {
    close(descriptor);
    return false;
  }
  const Admission admission = server.quota.admit(peer.uid, roomFor(server, descriptor));
  if (admission == Admission::OutOfDescriptors) {
    logShortage(server, EMFILE);
  }
  if (admission != Admission::Admitted) {
    close(descriptor);
    return false;
  }
  return true;
}

void adopt(SocketServer& server, int descriptor) {
  if (!admit(server, descriptor)) {
    return;
  }
  SocketClientCallbacks callbacks;
  callbacks.handler = server.handler;
  callbacks.gate = &server.gate;
  callbacks.closeNotifier = [&server](SocketClient& client) {
    server.clients.erase(&client);
    server.quota.release(client.peer.uid);
    resumeAccepting(server);
  };
  if (std::shared_ptr<SocketClient> client =
          socketClientCreate(*server.loop, descriptor, std::move(callbacks))) {
    server.clients.emplace(client.get(), std::move(client));
  }
}

// Errors that say the next accept may fail the same way at once.
bool isShortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

void onAcceptable(SocketServer& server) {
  for (int i = 0; i < kAcceptsPerWakeup; ++i) {
    const int descriptor =
        accept4(server.listenDescriptor, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (descriptor >= 0) {
      adopt(server, descriptor);
      continue;
    }
    const int error = errno;
    if (isShortage(error)) {
      pauseAccepting(server, error);
      return;
    }
    // EAGAIN: nothing more waits. A connection aborted before it was taken
    // (ECONNABORTED, EINTR) leaves the rest to be taken.
    if (error != ECONNABORTED && error != EINTR) {
      return;
    }
  }
}

bool listenOnLoop(SocketServer& server) {
  SocketServer* self = &server;
  server.listenSource = server.loop->addFd(server.listenDescriptor, EPOLLIN,
                                           [self](std::uint32_t) { onAcceptable(*self); });
  server.acceptRetry = server.loop->addTimer([self] { resumeAccepting(*self); });
  return server.listenSource != nullptr && server.acceptRetry != nullptr;
}

SocketServer* fail(SocketServer* server, SocketServerFailure* failure, const char* step,
                   int error) {
  if (failure != nullptr) {
    *failure = {step, error};
  }
  socketServerDestroy(server);
  return nullptr;
}

}  // namespace

SocketServer* socketServerCreate(SocketRequestHandler handler, const std::string& path,
                                 SocketServerFailure* failure) {
  auto* server = new SocketServer;
  server->handler = std::make_shared<const SocketRequestHandler>(std::move(handler));
  server->loop = runloop::RunLoop::current();
  if (server->loop == nullptr) {
    return fail(server, failure, "runloop", EINVAL);
  }
  const ListeningSocket listening = openListeningSocket(path);
  if (listening.descriptor < 0) {
    return fail(server, failure, listening.failedStep, listening.error);
  }
  server->listenDescriptor = listening.descriptor;
  server->path = path;
  server->ownDescriptors = countOpenDescriptors();
  if (!listenOnLoop(*server)) {
    return fail(server, failure, "runloop", ENOMEM);
  }
  return server;
}

void socketServerDestroy(SocketServer* server) {
  if (server == nullptr) {
    return;
  }
  std::vector<std::shared_ptr<SocketClient>> snapshot;
  snapshot.reserve(server->clients.size());
  for (const auto& entry : server->clients) {
    snapshot.push_back(entry.second);
  }
  for (const std::shared_ptr<SocketClient>& client : snapshot) {
    socketClientDestroy(*client);
  }
  server->clients.clear();
  server->listenSource.reset();
  server->acceptRetry.reset();
  if (server->listenDescriptor != -1) {
    close(server->listenDescriptor);
    server->listenDescriptor = -1;
  }
  if (!server->path.empty()) {
    unlink(server->path.c_str());
  }
  delete server;
}

void socketServerHoldReplies(SocketServer* server) {
  if (server != nullptr) {
    server->gate.held = true;
  }
}

void socketServerReleaseReplies(SocketServer* server) {
  if (server == nullptr || !server->gate.held) {
    return;
  }
  server->gate.held = false;
  std::vector<std::shared_ptr<SocketClient>> snapshot;
  for (const auto& entry : server->clients) {
    if (!entry.second->replyQueue.empty()) {
      snapshot.push_back(entry.second);
    }
  }
  for (const std::shared_ptr<SocketClient>& client : snapshot) {
    socketClientRelease(*client);
  }
}

bool socketServerRepliesHeld(const SocketServer* server) {
  return server != nullptr && server->gate.held;
}

std::size_t socketServerClientCount(const SocketServer* server) {
  return server == nullptr ? 0 : server->clients.size();
}

}  // namespace nightjar::api
