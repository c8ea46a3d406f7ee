#include "platform/linux/spawn_command_runner.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <list>
#include <utility>
#include <vector>

#include "platform/linux/daemon_root.h"

extern char** environ;

namespace nightjar::platform::linux_adapter {
namespace {

struct SourceUnref {
  void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
};
using SourcePtr = std::unique_ptr<sd_event_source, SourceUnref>;

// The spawn settings of every tool: a session of its own (it is started as
// "in the background" and must outlive a terminal or a stopping daemon), the
// standard descriptors only (never the daemon's sockets, bus connection or
// inhibitor locks), and a clean signal state.
class SpawnSettings {
 public:
  SpawnSettings() {
    posix_spawn_file_actions_init(&actions_);
    posix_spawn_file_actions_addclosefrom_np(&actions_, 3);
    posix_spawnattr_init(&attributes_);
    sigset_t none;
    sigemptyset(&none);
    sigset_t all;
    sigfillset(&all);
    sigdelset(&all, SIGKILL);
    sigdelset(&all, SIGSTOP);
    posix_spawnattr_setsigmask(&attributes_, &none);
    posix_spawnattr_setsigdefault(&attributes_, &all);
    posix_spawnattr_setflags(&attributes_,
                             POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
  }
  ~SpawnSettings() {
    posix_spawnattr_destroy(&attributes_);
    posix_spawn_file_actions_destroy(&actions_);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;

  // 0 and the child's pid, or the error number why it could not start
  // (glibc's posix_spawn reports a failed exec too).
  int spawn(const std::string& program, const std::vector<std::string>& arguments,
            pid_t* pid) const {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& argument : arguments)
      argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    return posix_spawn(pid, program.c_str(), &actions_, &attributes_, argv.data(), environ);
  }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

// Exit status as a shell gives it: 128 + the signal for a killed child.
int statusOf(const siginfo_t* info) {
  return info->si_code == CLD_EXITED ? info->si_status : 128 + info->si_status;
}

class SpawnCommandRunner final : public CommandRunner {
 public:
  SpawnCommandRunner(sd_event* event, std::string root)
      : event_(sd_event_ref(event)), root_(std::move(root)) {}
  ~SpawnCommandRunner() override {
    // Children still running are left to themselves; they are not killed.
    children_.clear();
    sd_event_unref(event_);
  }

  void run(const std::string& path, const std::vector<std::string>& arguments,
           Completion completion) override {
    pid_t pid = -1;
    const int error = settings_.spawn(underRoot(root_, path), arguments, &pid);
    if (error != 0) {
      if (completion)
        completion({.started = false, .status = error});
      return;
    }
    watch(pid, std::move(completion));
  }

 private:
  struct Child {
    SpawnCommandRunner* owner = nullptr;
    Completion completion;
    SourcePtr source;
    std::list<Child>::iterator self;
  };

  // When the source cannot be added (no memory) the outcome stays unknown and
  // the completion is dropped: the tool runs all the same.
  void watch(pid_t pid, Completion completion) {
    children_.emplace_back();
    Child& child = children_.back();
    child.owner = this;
    child.completion = std::move(completion);
    child.self = std::prev(children_.end());
    sd_event_source* source = nullptr;
    if (sd_event_add_child(event_, &source, pid, WEXITED, onExit, &child) < 0) {
      children_.pop_back();
      return;
    }
    child.source.reset(source);
  }

  // sd-event reaps the child once this returns, and frees a source dropped
  // here only then, so the record may go now.
  static int onExit(sd_event_source*, const siginfo_t* info, void* userdata) {
    auto* child = static_cast<Child*>(userdata);
    Completion completion = std::move(child->completion);
    const int status = statusOf(info);
    child->owner->children_.erase(child->self);
    if (completion)
      completion({.started = true, .status = status});
    return 0;
  }

  sd_event* event_;
  std::string root_;
  SpawnSettings settings_;
  std::list<Child> children_;
};

}  // namespace

std::unique_ptr<CommandRunner> makeSpawnCommandRunner(runloop::RunLoop& loop, std::string root) {
  sigset_t childSignal;
  sigemptyset(&childSignal);
  sigaddset(&childSignal, SIGCHLD);
  if (pthread_sigmask(SIG_BLOCK, &childSignal, nullptr) != 0)
    return nullptr;
  return std::make_unique<SpawnCommandRunner>(loop.event(), std::move(root));
}

}  // namespace nightjar::platform::linux_adapter
