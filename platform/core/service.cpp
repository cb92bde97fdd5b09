// Service reload: runs the hooks of ROOT/etc/tavo/reload.d, each within a
// time bound.
#include "tavo/service.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "accounts/snapshot/pin.h"
#include "core/os_util.h"
#include "tavo/error.h"
#include "tavo/root.h"

extern char** environ;

namespace {

constexpr long kDefaultHookTimeoutMs = 5000;
constexpr long kMaxPollMs = 10;

// Executable regular files of the hook folder, sorted by name. Names starting
// with "." are skipped. False when the folder exists but cannot be read.
bool ListHooks(const std::string& dir, std::vector<std::string>* hooks) {
  DIR* d = opendir(dir.c_str());
  if (!d) return errno == ENOENT || errno == ENOTDIR;
  while (struct dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    std::string path = dir + "/" + e->d_name;
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    if (access(path.c_str(), X_OK) != 0) continue;
    hooks->push_back(e->d_name);
  }
  closedir(d);
  std::sort(hooks->begin(), hooks->end());
  return true;
}

// The caller's environment with TAVO_ROOT set to the platform root.
std::vector<std::string> HookEnvironment() {
  std::vector<std::string> env;
  for (char** p = environ; p && *p; ++p) {
    if (std::strncmp(*p, "TAVO_ROOT=", 10) != 0) env.push_back(*p);
  }
  std::string root = tavo::TavoRootGet();
  env.push_back("TAVO_ROOT=" + (root.empty() ? std::string("/") : root));
  return env;
}

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
    // Own process group, so that a hook's children are killed with it; no
    // blocked signals and default handlers for the ones a server changes.
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
    // stdin from /dev/null, stdout to our stderr (a hook must not write into
    // the CLI's answer), and nothing else: no sockets, no lock descriptors.
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

// Waits for `pid` at most `timeout_ms`; kills its process group when the
// time is up. Logs a hook that fails, dies or is killed.
void WaitHook(pid_t pid, const std::string& path, long timeout_ms) {
  const long long deadline = tavo::internal::NowMillis() + timeout_ms;
  long poll = 1;
  int status = 0;
  for (;;) {
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) break;
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) return;  // reaped elsewhere (SIGCHLD ignored): nothing to report
    long long left = deadline - tavo::internal::NowMillis();
    if (left <= 0) {
      kill(-pid, SIGKILL);
      kill(pid, SIGKILL);
      while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
      }
      syslog(LOG_WARNING, "reload hook %s did not finish within %ld ms and was killed",
             path.c_str(), timeout_ms);
      return;
    }
    tavo::internal::SleepMillis(static_cast<long>(std::min<long long>(poll, left)));
    poll = std::min(poll * 2, kMaxPollMs);
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
    syslog(LOG_WARNING, "reload hook %s failed with exit status %d", path.c_str(),
           WEXITSTATUS(status));
  } else if (WIFSIGNALED(status)) {
    syslog(LOG_WARNING, "reload hook %s was ended by signal %d", path.c_str(), WTERMSIG(status));
  }
}

}  // namespace

extern "C" {

int TLIBServiceTypeReload(int type) {
  tavo::acct::internal::MarkNotReusable();  // runs programs of its own
  const std::string dir = tavo::TavoRootPath("/etc/tavo/reload.d");
  std::vector<std::string> hooks;
  if (!ListHooks(dir, &hooks)) {
    syslog(LOG_WARNING, "reload hooks in %s cannot be read: %s", dir.c_str(), strerror(errno));
    return TAVO_ERR_SET(TAVO_ERR_IO);
  }
  if (hooks.empty()) return 0;

  const long timeout = tavo::internal::EnvMillis("TAVO_HOOK_TIMEOUT_MS", kDefaultHookTimeoutMs);
  std::vector<std::string> env = HookEnvironment();
  std::vector<char*> envp = Pointers(env);
  SpawnSetup setup;
  int ran = 0;
  for (const std::string& name : hooks) {
    std::vector<std::string> args = {dir + "/" + name, std::to_string(type)};
    std::vector<char*> argv = Pointers(args);
    pid_t pid;
    int rc = posix_spawn(&pid, argv[0], setup.actions(), setup.attr(), argv.data(), envp.data());
    if (rc != 0) {
      syslog(LOG_WARNING, "reload hook %s could not be started: %s", argv[0], strerror(rc));
      continue;
    }
    ++ran;
    WaitHook(pid, args[0], timeout);
  }
  return ran;
}

}  // extern "C"
