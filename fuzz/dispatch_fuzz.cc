// Feeds arbitrary XML property lists through the request dispatcher, over the
// real event list, event scheduler and notification controller. The
// first input byte is the authorization's answer: bit 0 grants, bit 1 makes
// it answer later instead of at once; the rest is the XML document.
//
// Whatever the input, nothing may crash, every request is answered exactly
// once with a well-formed reply record and logged in exactly one line, and a
// refused caller never gets past the authorization.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "api/dispatcher.h"
#include "fakes/fake_timer.h"
#include "logging/logging.h"
#include "model/event_list.h"
#include "notifications/notification_controller.h"
#include "plist/xml.h"
#include "runloop/run_loop.h"
#include "scheduling/event_scheduler.h"
#include "scheduling/queue_controller.h"

namespace {

using nightjar::plist::Value;
namespace api = nightjar::api;

// Counts the exchange lines; the modules' own lines are not counted.
class CountingSink : public nightjar::logging::LogSink {
 public:
  void write(int, std::string_view line) override { lines += line.starts_with("API: ") ? 1 : 0; }
  int lines = 0;
};

void check(bool condition) {
  if (!condition) {
    std::abort();
  }
}

// Builds the modules once; they live for the whole run.
struct Daemon {
  Daemon() {
    nightjar::logging::setLogSink(&sink);
    loop = nightjar::runloop::RunLoop::create();
    nightjar::model::eventListSetUp();
    nightjar::scheduling::queueControllerListSetUp();
    nightjar::scheduling::eventSchedulerSetUp(nightjar::model::eventListGet(),
                                              nightjar::scheduling::queueControllerListGet());
    nightjar::notifications::notificationControllerCreate(clock, timers.timerFactory(),
                                                          [](const Value&) {});
  }

  CountingSink sink;
  std::unique_ptr<nightjar::runloop::RunLoop> loop;
  nightjar::fakes::FakeClock clock{800000000};
  nightjar::fakes::FakeTimerFactory timers{clock};
};

bool isRefusal(const Value& reply, std::int64_t code) {
  return reply.get("error").asInteger() == code;
}

// Exactly one of "status" and "error", with the members and codes the reply
// tables allow.
void checkReply(const Value& reply) {
  static const std::set<std::int64_t> kCodes = {400, 401, 402, 403, 404, 405, 407, 500};
  check(reply.isDictionary());
  if (std::optional<std::int64_t> status = reply.get("status").asInteger()) {
    check(!reply.get("error") && (*status == 200 || *status == 400));
    check(reply.count() == (reply.get("response") ? 2u : 1u));
    return;
  }
  const std::optional<std::int64_t> code = reply.get("error").asInteger();
  check(code && kCodes.contains(*code) && reply.get("reason").isString());
  const Value detail = reply.get("detail");
  check(!detail || (*code == 405 && *reply.get("reason").asString() == "Invalid parameter"));
  check(reply.count() == (detail ? 3u : 2u));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Daemon daemon;
  if (size == 0) {
    return 0;
  }
  const bool grant = (data[0] & 1) != 0;
  const bool later = (data[0] & 2) != 0;
  const Value request = nightjar::plist::parseXml(
      std::string_view(reinterpret_cast<const char*>(data + 1), size - 1));

  int asked = 0;
  int replies = 0;
  Value reply;
  api::AuthorizationDone pending;
  const int linesBefore = daemon.sink.lines;
  api::dispatchRequest(
      request,
      [&](const Value& authorization, std::string right, api::AuthorizationDone done) {
        ++asked;
        check(authorization.asData() != nullptr && !right.empty());
        later ? void(pending = std::move(done)) : done(grant);
      },
      [&](Value answer) {
        ++replies;
        reply = std::move(answer);
      });
  if (pending) {
    check(replies == 0 && daemon.sink.lines == linesBefore);
    pending(grant);
    pending(!grant);  // a second answer must change nothing
  }
  check(replies == 1 && asked <= 1 && daemon.sink.lines == linesBefore + 1);
  checkReply(reply);
  if (asked == 0 || !grant) {
    check(isRefusal(reply, 401) || isRefusal(reply, 500));
  }
  nightjar::model::eventListRemoveAll(nightjar::model::eventListGet());
  return 0;
}
