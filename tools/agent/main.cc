// nightjar-agent: shows the daemon's warnings in the desktop session as
// notices with Delay and Cancel. One runs per session: the first to own the
// agent's name on the session bus.
#include <signal.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "agent.h"
#include "agent_config.h"

namespace {

constexpr char kAgentName[] = "quillon.nightjar.Agent";

struct EventUnref {
  void operator()(sd_event* loop) const { sd_event_unref(loop); }
};
struct BusUnref {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};

int fail(const std::string& what, int error) {
  nightjar::agent::complain(what + ": " + std::strerror(-error));
  return 1;
}

}  // namespace

int main() {
  sd_event* rawLoop = nullptr;
  if (const int r = sd_event_default(&rawLoop); r < 0)
    return fail("cannot make the event loop", r);
  std::unique_ptr<sd_event, EventUnref> loop(rawLoop);
  sigset_t stops;
  sigemptyset(&stops);
  sigaddset(&stops, SIGTERM);
  sigaddset(&stops, SIGINT);
  sigprocmask(SIG_BLOCK, &stops, nullptr);
  // Without a handler a signal source ends the loop.
  sd_event_add_signal(loop.get(), nullptr, SIGTERM, nullptr, nullptr);
  sd_event_add_signal(loop.get(), nullptr, SIGINT, nullptr, nullptr);

  sd_bus* rawSession = nullptr;
  if (const int r = sd_bus_open_user(&rawSession); r < 0)
    return fail("cannot reach the session bus", r);
  std::unique_ptr<sd_bus, BusUnref> session(rawSession);
  // No queueing: the name is free, or another agent serves this session.
  if (const int r = sd_bus_request_name(session.get(), kAgentName, 0); r == -EEXIST) {
    nightjar::agent::complain("another agent runs in this session");
    return 0;
  } else if (r < 0) {
    return fail(std::string("cannot own ") + kAgentName, r);
  }
  // The session ends with its bus, and the agent with it.
  sd_bus_set_exit_on_disconnect(session.get(), 1);
  if (const int r = sd_bus_attach_event(session.get(), loop.get(), SD_EVENT_PRIORITY_NORMAL); r < 0)
    return fail("cannot attach the session bus", r);

  nightjar::agent::Agent agent(loop.get(), session.get(), nightjar::agent::loadDelayChoices());
  if (!agent.start())
    return fail("cannot follow the notification server", -EIO);
  const int r = sd_event_loop(loop.get());
  return r < 0 ? fail("the event loop failed", r) : 0;
}
