#include "core/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "core/os_util.h"

namespace tavo {
namespace internal {
namespace {

constexpr long kMaxPollMs = 10;

std::vector<char*> Pointers(std::vector<std::string>& strings) {
  std::vector<char*> out;
  for (std::string& s : strings) out.push_back(&s[0]);
  out.push_back(nullptr);
  return out;
}

// RAII for the spawn attributes and file actions.
class SpawnSetup {
 public:
  SpawnSetup() {
    posix_spawnattr_init(&attr_);
    posix_spawn_file_actions_init(&actions_);
    // Own process group, so that the program's children are killed with it;
    // no blocked signals and default handlers for the ones a server changes.
    posix_spawnattr_setflags(
        &attr_, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawnattr_setpgroup(&attr_, 0);
    sigset_t none, defaults;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attr_, &none);
    sigemptyset(&defaults);
    for (int sig :
         {SIGPIPE, SIGCHLD, SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2, SIGALRM}) {
      sigaddset(&defaults, sig);
    }
    posix_spawnattr_setsigdefault(&attr_, &defaults);
    posix_spawn_file_actions_addopen(&actions_, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions_, 2, 1);
    posix_spawn_file_actions_addclosefrom_np(&actions_, 3);
  }
  ~SpawnSetup() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attr_);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;

  const posix_spawnattr_t* attr() const { return &attr_; }
  const posix_spawn_file_actions_t* actions() const { return &actions_; }

 private:
  posix_spawnattr_t attr_;
  posix_spawn_file_actions_t actions_;
};

}  // namespace

RunOutcome RunBounded(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                      long timeout_ms, std::string* problem) {
  std::vector<std::string> args = argv, vars = env;
  std::vector<char*> argp = Pointers(args), envp = Pointers(vars);
  SpawnSetup setup;
  pid_t pid;
  int rc = posix_spawn(&pid, argp[0], setup.actions(), setup.attr(), argp.data(), envp.data());
  if (rc != 0) {
    *problem = std::string("could not be started: ") + strerror(rc);
    return RunOutcome::kNotStarted;
  }
  const long long deadline = NowMillis() + timeout_ms;
  long poll = 1;
  int status = 0;
  for (;;) {
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) break;
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) return RunOutcome::kSucceeded;  // reaped elsewhere (SIGCHLD ignored)
    long long left = deadline - NowMillis();
    if (left <= 0) {
      kill(-pid, SIGKILL);
      kill(pid, SIGKILL);
      while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
      }
      *problem = "did not finish within " + std::to_string(timeout_ms) + " ms and was killed";
      return RunOutcome::kTimedOut;
    }
    SleepMillis(static_cast<long>(std::min<long long>(poll, left)));
    poll = std::min(poll * 2, kMaxPollMs);
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
    *problem = "failed with exit status " + std::to_string(WEXITSTATUS(status));
    return RunOutcome::kFailed;
  }
  if (WIFSIGNALED(status)) {
    *problem = "was ended by signal " + std::to_string(WTERMSIG(status));
    return RunOutcome::kFailed;
  }
  return RunOutcome::kSucceeded;
}

}  // namespace internal
}  // namespace tavo
