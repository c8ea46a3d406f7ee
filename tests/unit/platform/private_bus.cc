#include "platform/private_bus.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

extern char** environ;

namespace nightjar::testing {
namespace {

using Clock = std::chrono::steady_clock;

// Everything is allowed: the bus exists for one test and its own children.
constexpr char kConfig[] = R"(<busconfig>
  <type>system</type>
  <listen>unix:path=@DIR@/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/> <allow own="*"/>
    <allow send_destination="*"/> <allow receive_sender="*"/>
  </policy>
</busconfig>
)";

// Spawns `argv` with stdout on `stdoutFd` (/dev/null when -1) and stderr on
// /dev/null when `quiet`.
pid_t spawn(std::vector<std::string> argv, int stdoutFd, bool quiet) {
  std::vector<char*> args;
  for (std::string& arg : argv)
    args.push_back(arg.data());
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (stdoutFd >= 0) {
    posix_spawn_file_actions_adddup2(&actions, stdoutFd, STDOUT_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  }
  if (quiet)
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  const int r = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return r == 0 ? pid : -1;
}

void stop(pid_t pid) {
  if (pid <= 0)
    return;
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
}

}  // namespace

PrivateBus::PrivateBus() {
  char pattern[] = "/tmp/nightjar-bus-XXXXXX";
  if (mkdtemp(pattern) == nullptr)
    return;
  directory_ = pattern;
  std::string config = kConfig;
  config.replace(config.find("@DIR@"), 5, directory_);
  std::ofstream(directory_ + "/bus.conf") << config;
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0)
    return;
  daemon_ = spawn({"/usr/bin/dbus-daemon", "--config-file=" + directory_ + "/bus.conf", "--nofork",
                   "--print-address"},
                  out[1], /*quiet=*/true);
  close(out[1]);
  // The daemon prints its address once it listens, or exits and closes the pipe.
  FILE* printed = fdopen(out[0], "r");
  char line[512] = "";
  if (printed != nullptr && std::fgets(line, sizeof line, printed) != nullptr)
    address_.assign(line, std::strcspn(line, "\n"));
  if (printed != nullptr)
    std::fclose(printed);
}

PrivateBus::~PrivateBus() {
  stopTemplates();
  stop(daemon_);
  std::error_code ignored;
  if (!directory_.empty())
    std::filesystem::remove_all(directory_, ignored);
}

void PrivateBus::stopTemplates() {
  for (pid_t mock : mocks_)
    stop(mock);
  mocks_.clear();
}

bool PrivateBus::startTemplate(const std::string& name, const std::string& busName,
                               const std::string& parameters) {
  if (!ok())
    return false;
  // exec keeps the pid, so that stopping it stops the mock. Its calls are
  // logged on its stdout.
  const int log = ::open((directory_ + "/" + name + ".log").c_str(),
                         O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  const pid_t pid =
      spawn({"/usr/bin/env", "DBUS_SYSTEM_BUS_ADDRESS=" + address_, "/usr/bin/python3", "-m",
             "dbusmock", "--system", "--template", name, "--parameters", parameters},
            log, /*quiet=*/false);
  close(log);
  if (pid <= 0)
    return false;
  mocks_.push_back(pid);
  platform::linux_adapter::BusPtr bus = connect();
  for (const auto deadline = Clock::now() + std::chrono::seconds(20);
       bus != nullptr && Clock::now() < deadline;
       std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
    if (sd_bus_call_method(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", "GetNameOwner", nullptr, nullptr, "s",
                           busName.c_str()) >= 0)
      return true;
    if (waitpid(pid, nullptr, WNOHANG) == pid) {
      mocks_.pop_back();
      return false;
    }
  }
  return false;
}

platform::linux_adapter::BusPtr PrivateBus::connect() const {
  sd_bus* raw = nullptr;
  if (sd_bus_new(&raw) < 0)
    return nullptr;
  platform::linux_adapter::BusPtr bus(raw);
  if (sd_bus_set_address(raw, address_.c_str()) < 0 || sd_bus_set_bus_client(raw, 1) < 0 ||
      sd_bus_negotiate_fds(raw, 1) < 0 || sd_bus_start(raw) < 0) {
    return nullptr;
  }
  return bus;
}

bool runUntil(sd_event* event, const std::function<bool()>& done,
              std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!done()) {
    if (Clock::now() >= deadline)
      return false;
    sd_event_run(event, 20'000);
  }
  return true;
}

std::vector<std::string> PrivateBus::calls(const std::string& name,
                                           const std::string& method) const {
  std::ifstream log(directory_ + "/" + name + ".log");
  std::vector<std::string> calls;
  for (std::string line; std::getline(log, line);) {
    const std::string call = line.substr(line.find(' ') + 1);  // after the time
    if ((call == method || call.starts_with(method + ' ')) && !call.starts_with(method + " raised"))
      calls.push_back(call.substr(std::min(call.size(), method.size() + 1)));
  }
  return calls;
}

}  // namespace nightjar::testing
