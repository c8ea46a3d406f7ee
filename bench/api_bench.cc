// Requests per second and latency over the API socket, beside a bare echo
// over a Unix socket measured in the same run: the echo is what the kernel
// alone costs for the same bytes, so the gap is the server's own cost.
//
// The server runs its own run loop on a second thread; the benchmark thread
// is one client that sends a request and waits for its reply, over and over.
// To measure another handler (the dispatcher, say), add a benchmark that
// calls runServerBench with it and the request to send.
#include <benchmark/benchmark.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "api/dispatcher.h"
#include "api/socket_server.h"
#include "model/event_list.h"
#include "plist/xml.h"
#include "runloop/descriptors.h"
#include "runloop/run_loop.h"
#include "wire/framing.h"

namespace nightjar::api {
namespace {

using Clock = std::chrono::steady_clock;

plist::Value request(const char* name) {
  return plist::Value::dictionary({{"Request", plist::Value::string(name)},
                                   {"Authorization", plist::Value::data(plist::Bytes(32, 0))}});
}

plist::Value versionRequest() {
  return request("build.version");
}

plist::Value versionReply() {
  return plist::Value::dictionary({{"status", plist::Value::integer(200)},
                                   {"response", plist::Value::string("nightjard v3.7.3")}});
}

// Latencies in microseconds, reported as p50 and p99 beside the rate.
class Latencies {
 public:
  void add(Clock::duration d) {
    samples_.push_back(std::chrono::duration<double, std::micro>(d).count());
  }
  void report(benchmark::State& state) {
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
    if (samples_.empty()) {
      return;
    }
    std::sort(samples_.begin(), samples_.end());
    state.counters["p50_us"] = samples_[samples_.size() / 2];
    state.counters["p99_us"] = samples_[samples_.size() * 99 / 100];
  }

 private:
  std::vector<double> samples_;
};

// A daemon root of its own with the socket's sticky parent.
struct BenchRoot {
  BenchRoot() {
    char pattern[] = "/tmp/nightjar-bench-XXXXXX";
    if (mkdtemp(pattern) != nullptr) {
      path = pattern;
      std::filesystem::create_directories(path + "/var/tmp");
      chmod((path + "/var/tmp").c_str(), 01777);
    }
  }
  ~BenchRoot() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  std::string path;
};

// The socket server on its own thread and run loop, until destroyed.
class ServerThread {
 public:
  ServerThread(SocketRequestHandler handler, const std::string& path) {
    stopFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    thread_ = std::thread([this, handler = std::move(handler), path]() mutable {
      auto loop = runloop::RunLoop::create();
      SocketServer* server = socketServerCreate(std::move(handler), path);
      auto stop = loop->addFd(stopFd_, EPOLLIN, [&loop](std::uint32_t) { loop->stop(); });
      started_ = server != nullptr;
      ready_.test_and_set();
      ready_.notify_all();
      if (server != nullptr) {
        loop->run();
      }
      socketServerDestroy(server);
    });
    ready_.wait(false);
  }
  ~ServerThread() {
    const std::uint64_t one = 1;
    (void)write(stopFd_, &one, sizeof one);
    thread_.join();
    close(stopFd_);
  }
  bool started() const { return started_; }

 private:
  int stopFd_ = -1;
  std::atomic_flag ready_;
  bool started_ = false;
  std::thread thread_;
};

int connectTo(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

bool writeAll(int fd, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n <= 0) {
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

// Reads one whole message (header, then the rest that its length names).
bool readMessage(int fd, std::string& buffer) {
  buffer.resize(framing::kHeaderLength);
  if (runloop::readFully(fd, buffer.data(), framing::kHeaderLength) != 0) {
    return false;
  }
  const auto header =
      framing::readHeader({reinterpret_cast<const std::uint8_t*>(buffer.data()), buffer.size()});
  if (!header || header->length < framing::kHeaderLength) {
    return false;
  }
  buffer.resize(header->length);
  return runloop::readFully(fd, buffer.data() + framing::kHeaderLength,
                            header->length - framing::kHeaderLength) == 0;
}

// Parses the reply's payload, as a client does before it can use the reply.
bool parseReply(const std::string& reply) {
  const framing::Frame frame = framing::decodeReply(
      {reinterpret_cast<const std::uint8_t*>(reply.data()), reply.size()}, UINT32_MAX);
  return frame.status == framing::FrameStatus::Ready && !plist::parseXml(frame.payload).isNone();
}

// One client sending `request` and waiting for each reply, which it parses
// when `parses` is set.
void runClient(benchmark::State& state, int fd, const std::string& request, bool parses = false) {
  Latencies latencies;
  std::string reply;
  for (auto _ : state) {
    const Clock::time_point start = Clock::now();
    if (!writeAll(fd, request) || !readMessage(fd, reply) || (parses && !parseReply(reply))) {
      state.SkipWithError("the connection failed");
      break;
    }
    latencies.add(Clock::now() - start);
  }
  latencies.report(state);
}

void runServerBench(benchmark::State& state, SocketRequestHandler handler,
                    const std::string& request, bool parses = false) {
  BenchRoot root;
  const std::string path = root.path + std::string(kSocketPath);
  ServerThread server(std::move(handler), path);
  const int fd = server.started() ? connectTo(path) : -1;
  if (fd < 0) {
    state.SkipWithError("no server (the benchmark needs root for the socket's folder)");
    for (auto _ : state) {
    }
    return;
  }
  runClient(state, fd, request, parses);
  close(fd);
}

// The socket server with a handler that answers at once with a constant.
void BM_SocketRequest(benchmark::State& state) {
  const plist::Value reply = versionReply();
  runServerBench(
      state, [reply](const Request&, Responder responder) { responder.reply(reply); },
      *framing::encodeRequest(1, versionRequest()));
}

// The real dispatcher (form checks, routing, the "API: %@ > %@" log line)
// with a rights check that grants at once, as it does for root.
void dispatchGranted(const Request& request, Responder responder) {
  dispatchRequest(
      request.value, [](const plist::Value&, std::string, AuthorizationDone done) { done(true); },
      [responder](plist::Value reply) { responder.reply(std::move(reply)); });
}

// "build.version" through the dispatcher.
void BM_DispatchVersion(benchmark::State& state) {
  runServerBench(state, dispatchGranted, *framing::encodeRequest(1, versionRequest()));
}

// A daily event with a name of 255 characters, the longest a client may give.
plist::Value longNamedEvent(int i) {
  plist::Array days;
  for (const char* day : {"monday", "tuesday", "wednesday", "thursday", "friday"}) {
    days.push_back(plist::Value::string(day));
  }
  std::string name = "Event " + std::to_string(i);
  name.resize(255, 'n');
  return plist::Value::dictionary(
      {{"uniqueid", plist::Value::string("event-" + std::to_string(i))},
       {"name", plist::Value::string(name)},
       {"enabled", plist::Value::boolean(true)},
       {"trigger",
        plist::Value::dictionary({{"type", plist::Value::string("daily")},
                                  {"secondsfrommidnight", plist::Value::integer(i * 7919 % 86400)},
                                  {"days", plist::Value::array(std::move(days))}})},
       {"action", plist::Value::dictionary({{"type", plist::Value::string("sleep")}})}});
}

// The event list of `count` long-named events, for as long as it lives.
struct EventListOf {
  explicit EventListOf(int count) {
    model::eventListSetUp();
    for (int i = 0; i < count; ++i) {
      model::eventListStore(model::eventListGet(), longNamedEvent(i));
    }
  }
  ~EventListOf() { model::eventListTearDown(); }
};

// "scheduler.events" through the dispatcher, the reply parsed by the client.
void BM_DispatchEvents(benchmark::State& state) {
  EventListOf list(static_cast<int>(state.range(0)));
  runServerBench(state, dispatchGranted, *framing::encodeRequest(1, request("scheduler.events")),
                 /*parses=*/true);
}

// The reference of BM_DispatchEvents: the same array through the XML writer.
void BM_WriteEventsXml(benchmark::State& state) {
  EventListOf list(static_cast<int>(state.range(0)));
  const plist::Value events = model::eventListCopyPublic(model::eventListGet());
  for (auto _ : state) {
    benchmark::DoNotOptimize(plist::writeXml(events));
  }
}

// The framing alone: a NOOP and its 20-byte reply.
void BM_SocketNoop(benchmark::State& state) {
  runServerBench(state, {}, framing::encodeBare(framing::MessageType::Noop, 1));
}

// The same bytes as BM_SocketRequest through a thread that only echoes: it
// reads one request and writes back a reply of the same size as the server's.
void BM_BareEcho(benchmark::State& state) {
  const std::string request = *framing::encodeRequest(1, versionRequest());
  const std::string reply = *framing::encodeReply(1, versionReply());
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    state.SkipWithError("socketpair failed");
    return;
  }
  std::thread echo([fd = ends[1], &reply] {
    std::string buffer;
    while (readMessage(fd, buffer) && writeAll(fd, reply)) {
    }
  });
  runClient(state, ends[0], request);
  shutdown(ends[0], SHUT_RDWR);
  echo.join();
  close(ends[0]);
  close(ends[1]);
}

BENCHMARK(BM_BareEcho)->UseRealTime();
BENCHMARK(BM_SocketNoop)->UseRealTime();
BENCHMARK(BM_SocketRequest)->UseRealTime();
BENCHMARK(BM_DispatchVersion)->UseRealTime();
BENCHMARK(BM_WriteEventsXml)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DispatchEvents)->Arg(1000)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace nightjar::api
