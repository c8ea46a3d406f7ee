// perch: the per-user side of scheduled actions at the console (seat0).
//   -l  ends the active user session (log out)
//   -s  switches to the login screen: through the display manager when it
//       offers org.freedesktop.DisplayManager, else by locking the session
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "tool_bus.h"

namespace {

using namespace nightjar::tools;

constexpr char kProgram[] = "perch";
constexpr char kUsage[] =
    "usage: perch -l | -s\n"
    "  -l  log the console user out\n"
    "  -s  switch to the login screen\n";

constexpr char kSeatPath[] = "/org/freedesktop/login1/seat/seat0";
constexpr char kSeatInterface[] = "org.freedesktop.login1.Seat";
constexpr char kSessionInterface[] = "org.freedesktop.login1.Session";
constexpr char kDisplayManager[] = "org.freedesktop.DisplayManager";
constexpr char kDisplayManagerPath[] = "/org/freedesktop/DisplayManager";
constexpr char kDisplayManagerSeat[] = "org.freedesktop.DisplayManager.Seat";

enum class Action { LogOut, SwitchToLoginScreen };

std::optional<Action> parse(int argc, char* argv[]) {
  if (argc != 2)
    return std::nullopt;
  if (std::strcmp(argv[1], "-l") == 0)
    return Action::LogOut;
  if (std::strcmp(argv[1], "-s") == 0)
    return Action::SwitchToLoginScreen;
  return std::nullopt;
}

// The session class of `sessionPath` ("user", "greeter", ...), or "" when
// logind does not say.
std::string sessionClass(sd_bus* bus, const char* sessionPath) {
  BusError error;
  char* value = nullptr;
  if (sd_bus_get_property_string(bus, kLogindService, sessionPath, kSessionInterface, "Class",
                                 &error.error, &value) < 0) {
    return "";
  }
  std::string result = value;
  std::free(value);
  return result;
}

// The id of seat0's active session when it is a user's (not the login
// screen's); otherwise prints why not and answers nullopt.
std::optional<std::string> activeUserSession(sd_bus* bus, const char* what) {
  BusError error;
  sd_bus_message* raw = nullptr;
  const int r = sd_bus_get_property(bus, kLogindService, kSeatPath, kSeatInterface, "ActiveSession",
                                    &error.error, &raw, "(so)");
  if (r < 0) {
    reportFailure(kProgram, what, "logind", error.error, r);
    return std::nullopt;
  }
  MessagePtr reply(raw);
  const char* id = nullptr;
  const char* path = nullptr;
  if (sd_bus_message_read(raw, "(so)", &id, &path) < 0 || id == nullptr || *id == '\0' ||
      sessionClass(bus, path) != "user") {
    std::fprintf(stderr, "%s: cannot %s: no user session is active on seat0\n", kProgram, what);
    return std::nullopt;
  }
  return std::string(id);
}

// Calls a Manager method that takes a session id.
int callWithSession(sd_bus* bus, const char* method, const char* what) {
  const std::optional<std::string> session = activeUserSession(bus, what);
  if (!session)
    return kExitFailed;
  BusError error;
  const int r = sd_bus_call_method(bus, kLogindService, kLogindPath, kLogindManager, method,
                                   &error.error, nullptr, "s", session->c_str());
  if (r < 0) {
    reportFailure(kProgram, what, "logind", error.error, r);
    return kExitFailed;
  }
  return kExitDone;
}

// The display manager's first seat, the machine's only one in practice: its
// seat objects do not name logind's seat. nullopt when no display manager
// with this interface runs, or it has no seat.
std::optional<std::string> displayManagerSeat(sd_bus* bus) {
  BusError error;
  char** seats = nullptr;
  if (sd_bus_get_property_strv(bus, kDisplayManager, kDisplayManagerPath, kDisplayManager, "Seats",
                               &error.error, &seats) < 0) {
    return std::nullopt;
  }
  std::optional<std::string> first;
  if (seats != nullptr && seats[0] != nullptr)
    first = seats[0];
  for (char** seat = seats; seats != nullptr && *seat != nullptr; ++seat)
    std::free(*seat);
  std::free(seats);
  return first;
}

int switchToLoginScreen(sd_bus* bus) {
  const std::optional<std::string> seat = displayManagerSeat(bus);
  if (!seat)
    return callWithSession(bus, "LockSession", "lock the session");
  BusError error;
  const int r = sd_bus_call_method(bus, kDisplayManager, seat->c_str(), kDisplayManagerSeat,
                                   "SwitchToGreeter", &error.error, nullptr, "");
  if (r < 0) {
    reportFailure(kProgram, "switch to the login screen", "the display manager", error.error, r);
    return kExitFailed;
  }
  return kExitDone;
}

}  // namespace

int main(int argc, char* argv[]) {
  const std::optional<Action> action = parse(argc, argv);
  if (!action) {
    std::fputs(kUsage, stderr);
    return kExitUsage;
  }
  BusPtr bus = openSystemBus(kProgram);
  if (bus == nullptr)
    return kExitFailed;
  if (*action == Action::LogOut)
    return callWithSession(bus.get(), "TerminateSession", "log out");
  return switchToLoginScreen(bus.get());
}
