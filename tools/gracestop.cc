// gracestop: powers the system off (-h) or restarts it (-r) through logind.
// Started by nightjard for scheduled shutdown and restart events.
#include <cstdio>
#include <cstring>

#include "tool_bus.h"

namespace {

using namespace nightjar::tools;

constexpr char kProgram[] = "gracestop";
constexpr char kUsage[] =
    "usage: gracestop -h | -r\n"
    "  -h  power the system off\n"
    "  -r  restart the system\n";

struct Request {
  const char* method;  // logind Manager method
  const char* what;    // for the error line
};

// Exactly one of -h and -r, and nothing else.
bool parse(int argc, char* argv[], Request* request) {
  if (argc != 2)
    return false;
  if (std::strcmp(argv[1], "-h") == 0) {
    *request = {"PowerOff", "power off"};
    return true;
  }
  if (std::strcmp(argv[1], "-r") == 0) {
    *request = {"Reboot", "restart"};
    return true;
  }
  return false;
}

}  // namespace

int main(int argc, char* argv[]) {
  Request request{};
  if (!parse(argc, argv, &request)) {
    std::fputs(kUsage, stderr);
    return kExitUsage;
  }
  BusPtr bus = openSystemBus(kProgram);
  if (bus == nullptr)
    return kExitFailed;
  BusError error;
  // Not interactive: nobody is there to answer an authentication prompt.
  const int r = sd_bus_call_method(bus.get(), kLogindService, kLogindPath, kLogindManager,
                                   request.method, &error.error, nullptr, "b", /*interactive=*/0);
  if (r < 0) {
    reportFailure(kProgram, request.what, "logind", error.error, r);
    return kExitFailed;
  }
  return kExitDone;
}
