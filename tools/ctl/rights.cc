#include "rights.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

extern char** environ;

namespace nightjar::ctl {
namespace {

// How long the agent may take to register before pkcheck runs without it.
constexpr int kAgentStartMs = 5000;

// Starts a program; `quiet` sends its standard output (pkcheck's verdict,
// which the daemon's answer repeats as a sentence) to /dev/null.
pid_t spawn(std::vector<std::string> arguments, bool quiet = false) {
  std::vector<char*> argv;
  for (std::string& argument : arguments)
    argv.push_back(argument.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (quiet)
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  const int failed = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return failed != 0 ? -1 : pid;
}

int waitFor(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0)
    if (errno != EINTR)
      return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// pkttyagent writes to its notify descriptor (and closes it) once it is
// registered for this process.
pid_t startAgent(const std::string& pid) {
  int pipe[2];
  if (::pipe(pipe) != 0)
    return -1;
  ::fcntl(pipe[0], F_SETFD, FD_CLOEXEC);
  const pid_t agent =
      spawn({"pkttyagent", "--process", pid, "--notify-fd", std::to_string(pipe[1]), "--fallback"});
  ::close(pipe[1]);
  pollfd ready{.fd = pipe[0], .events = POLLIN, .revents = 0};
  ::poll(&ready, 1, kAgentStartMs);
  ::close(pipe[0]);
  return agent;
}

}  // namespace

bool obtainRight(const std::string& right) {
  if (!::isatty(STDIN_FILENO))
    return true;
  const std::string pid = std::to_string(::getpid());
  const pid_t agent = startAgent(pid);
  const pid_t check =
      spawn({"pkcheck", "--allow-user-interaction", "--action-id", right, "--process", pid});
  const int status = check < 0 ? -1 : waitFor(check);
  if (agent > 0) {
    ::kill(agent, SIGTERM);
    waitFor(agent);
  }
  return status == 0;
}

}  // namespace nightjar::ctl
