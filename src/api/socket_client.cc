#include "api/socket_client.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <optional>
#include <span>

#include "runloop/descriptors.h"

namespace nightjar::api {

namespace internal {

// One request with the handler, shared by every copy of its Responder.
struct PendingRequest {
  PendingRequest(std::weak_ptr<SocketClient> client, std::uint32_t identifier)
      : client(std::move(client)), identifier(identifier) {}
  ~PendingRequest();
  PendingRequest(const PendingRequest&) = delete;
  PendingRequest& operator=(const PendingRequest&) = delete;

  void answer(plist::Value reply);

  std::weak_ptr<SocketClient> client;
  std::uint32_t identifier;
  bool answered = false;
};

}  // namespace internal

namespace {

// One read takes at most this much; a connection is read again on the next
// pass, so a fast sender cannot keep the others waiting.
constexpr std::size_t kReadChunk = 64 * 1024;

bool repliesHeld(const SocketClient& client) {
  return client.callbacks.gate->held && client.replyQueue.size() > client.releasedReplies;
}

// A connection reads no further while its request is with the handler, or
// while a reply of it waits for the gate: a client that keeps sending can
// neither grow its queue nor keep the loop from reaching the gate's release.
bool blocked(const SocketClient& client) {
  return client.requestPending || repliesHeld(client);
}

// Watches for what the connection can use now. A source that watches nothing
// is switched off: epoll would still report a hang-up, again and again.
void updateWatch(SocketClient& client) {
  if (client.closed) {
    return;
  }
  std::uint32_t events = blocked(client) ? 0u : static_cast<std::uint32_t>(EPOLLIN);
  if (client.waitingForWritable) {
    events |= EPOLLOUT;
  }
  if (events == client.watchedEvents) {
    return;
  }
  if (events == 0) {
    sd_event_source_set_enabled(client.source->get(), SD_EVENT_OFF);
  } else {
    sd_event_source_set_io_events(client.source->get(), events);
    sd_event_source_set_enabled(client.source->get(), SD_EVENT_ON);
  }
  client.watchedEvents = events;
}

void scheduleResume(SocketClient& client) {
  if (!client.closed && !client.readBuffer.empty()) {
    sd_event_source_set_enabled(client.resumeSource->get(), SD_EVENT_ONESHOT);
  }
}

// Bytes as well as count: else a peer that never reads holds 100 whole event lists.
bool overflows(const SocketClient& client, std::size_t size) {
  return client.replyQueue.size() >= framing::kMaxUnsentReplies ||
         (!client.replyQueue.empty() && client.queuedBytes + size > kMaxUnsentReplyBytes);
}

void startRequest(SocketClient& client, plist::Value request, std::uint32_t identifier) {
  client.requestPending = true;
  auto pending = std::make_shared<internal::PendingRequest>(client.weak_from_this(), identifier);
  const SocketRequestHandler& handler = *client.callbacks.handler;
  handler(Request{std::move(request), client.peer}, Responder(std::move(pending)));
}

// Handles one whole message; false when the connection was closed.
bool handleFrame(SocketClient& client, const framing::Frame& frame) {
  if (frame.type == framing::MessageType::Noop) {
    client.readBuffer.consume(frame.length);
    if (!socketClientSend(client, framing::encodeEmptyReply(frame.identifier))) {
      socketClientDestroy(client);
      return false;
    }
    return true;
  }
  // A DICT: parsed in place, then consumed before the handler runs.
  plist::Value request = framing::parsePayload(frame.payload);
  client.readBuffer.consume(frame.length);
  if (request.isNone() || client.callbacks.handler == nullptr || !*client.callbacks.handler) {
    return true;
  }
  startRequest(client, std::move(request), frame.identifier);
  return !client.closed;
}

// Answers the buffered messages in order until one is incomplete, a request
// goes to the handler and stays there, or the connection closes.
void processBuffered(SocketClient& client) {
  client.processing = true;
  while (!client.closed && !blocked(client)) {
    const framing::Frame frame = framing::decodeRequest(client.readBuffer.bytes());
    if (frame.status == framing::FrameStatus::NeedMore) {
      break;
    }
    if (frame.status == framing::FrameStatus::Close || !handleFrame(client, frame)) {
      socketClientDestroy(client);
      break;
    }
  }
  client.processing = false;
  updateWatch(client);
}

void finishRequest(SocketClient& client, std::uint32_t identifier, plist::Value reply) {
  if (client.closed || !client.requestPending) {
    return;
  }
  client.requestPending = false;
  if (std::optional<framing::Message> message = framing::encodeReply(identifier, reply)) {
    if (!socketClientSend(client, std::move(*message))) {
      socketClientDestroy(client);
      return;
    }
  }
  // Inside the loop over buffered messages the loop simply goes on; a late
  // answer leaves the rest to a later pass.
  if (!client.processing) {
    scheduleResume(client);
    updateWatch(client);
  }
}

void onReadable(SocketClient& client) {
  std::array<std::uint8_t, kReadChunk> chunk;
  const ssize_t n = read(client.descriptor, chunk.data(), chunk.size());
  if (n > 0) {
    client.readBuffer.append(std::span(chunk.data(), static_cast<std::size_t>(n)));
    processBuffered(client);
  } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
    socketClientDestroy(client);  // the peer closed, or the connection broke
  }
}

void onWritable(SocketClient& client) {
  client.waitingForWritable = false;
  if (socketClientFlush(client) != 0) {
    socketClientDestroy(client);
    return;
  }
  updateWatch(client);
}

void onEvents(SocketClient& client, std::uint32_t revents) {
  const std::uint32_t trouble = EPOLLERR | EPOLLHUP;
  if (client.waitingForWritable && (revents & (EPOLLOUT | trouble)) != 0) {
    onWritable(client);
  }
  if (!client.closed && (client.watchedEvents & EPOLLIN) != 0 &&
      (revents & (EPOLLIN | trouble)) != 0) {
    onReadable(client);
  }
}

int onResume(sd_event_source*, void* userdata) {
  SocketClient& client = *static_cast<SocketClient*>(userdata);
  const std::shared_ptr<SocketClient> keep = client.shared_from_this();
  processBuffered(client);
  return 0;
}

bool watch(runloop::RunLoop& loop, SocketClient& client) {
  std::weak_ptr<SocketClient> weak = client.weak_from_this();
  client.source = loop.addFd(client.descriptor, EPOLLIN, [weak](std::uint32_t revents) {
    if (const std::shared_ptr<SocketClient> keep = weak.lock()) {
      onEvents(*keep, revents);
    }
  });
  if (client.source == nullptr) {
    return false;
  }
  client.watchedEvents = EPOLLIN;
  sd_event_source* resume = nullptr;
  if (sd_event_add_defer(loop.event(), &resume, onResume, &client) < 0) {
    return false;
  }
  client.resumeSource = std::make_unique<runloop::Source>(resume);
  return sd_event_source_set_enabled(resume, SD_EVENT_OFF) >= 0;
}

}  // namespace

namespace internal {

PendingRequest::~PendingRequest() {
  answer(plist::Value());
}

void PendingRequest::answer(plist::Value reply) {
  if (answered) {
    return;
  }
  answered = true;
  if (const std::shared_ptr<SocketClient> keep = client.lock()) {
    finishRequest(*keep, identifier, std::move(reply));
  }
}

}  // namespace internal

void Responder::reply(plist::Value reply) const {
  pending_->answer(std::move(reply));
}

bool Responder::answered() const {
  return pending_->answered;
}

bool socketPeerCredentials(int descriptor, platform::PeerCredentials& peer) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0 ||
      size != sizeof credentials) {
    return false;
  }
  peer = {credentials.pid, credentials.uid, credentials.gid};
  return true;
}

std::shared_ptr<SocketClient> socketClientCreate(runloop::RunLoop& loop, int descriptor,
                                                 SocketClientCallbacks callbacks) {
  auto client = std::make_shared<SocketClient>();
  client->descriptor = descriptor;
  client->callbacks = std::move(callbacks);
  if (client->callbacks.gate == nullptr || runloop::setNonBlocking(descriptor) != 0 ||
      !socketPeerCredentials(descriptor, client->peer) || !watch(loop, *client)) {
    socketClientDestroy(*client);
    return nullptr;
  }
  return client;
}

void socketClientDestroy(SocketClient& client) {
  if (client.closed) {
    return;
  }
  client.closed = true;
  if (client.callbacks.closeNotifier) {
    client.callbacks.closeNotifier(client);
  }
  client.source.reset();
  client.resumeSource.reset();
  if (client.descriptor != -1) {
    close(client.descriptor);
    client.descriptor = -1;
  }
  client.readBuffer.clear();
  client.replyQueue.clear();
  client.queuedBytes = 0;
  client.releasedReplies = 0;
  client.writeOffset = 0;
}

int socketClientFlush(SocketClient& client) {
  while (client.releasedReplies > 0) {
    const framing::Message& head = client.replyQueue.front();
    const ssize_t n = send(client.descriptor, head.data() + client.writeOffset,
                           head.size() - client.writeOffset, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      client.writeOffset += static_cast<std::size_t>(n);
      if (client.writeOffset == head.size()) {
        client.queuedBytes -= head.size();
        client.replyQueue.pop_front();
        --client.releasedReplies;
        client.writeOffset = 0;
      }
    } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      client.waitingForWritable = true;
      updateWatch(client);
      return 0;
    } else if (n < 0 && errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

bool socketClientSend(SocketClient& client, framing::Message message) {
  if (client.closed || overflows(client, message.size())) {
    return false;
  }
  client.queuedBytes += message.size();
  client.replyQueue.push_back(std::move(message));
  if (!client.callbacks.gate->held) {
    client.releasedReplies = client.replyQueue.size();
  }
  return socketClientFlush(client) == 0;
}

void socketClientRelease(SocketClient& client) {
  if (client.closed) {
    return;
  }
  client.releasedReplies = client.replyQueue.size();
  if (socketClientFlush(client) != 0) {
    socketClientDestroy(client);
    return;
  }
  if (!client.processing && !client.requestPending) {
    scheduleResume(client);
  }
  updateWatch(client);
}

}  // namespace nightjar::api
