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

#include "os_util.h"
#include "tavo/error.h"
#include "tavo/root.h"

namespace {

constexpr long kDefaultHookTimeoutMs = 5000;
constexpr long kMaxPollMs = 10;

// Whether a hook file or its folder may be trusted to run as this service:
// owned by root or by the service's user, and writable by no one else.
bool Trusted(const struct stat& st) {
  return (st.st_uid == 0 || st.st_uid == geteuid()) && (st.st_mode & 022) == 0;
}

// The hooks of the hook folder, sorted by name: regular files (not symbolic
// links) with an execute bit, trusted as above. Names starting with "." are
// skipped; other files, and every file of a folder that is not itself
// trusted, are logged and skipped. False when the folder exists but cannot
// be read.
bool ListHooks(const std::string& dir, std::vector<std::string>* hooks) {
  DIR* d = opendir(dir.c_str());
  if (!d) return errno == ENOENT || errno == ENOTDIR;
  struct stat folder;
  const bool folder_ok = fstat(dirfd(d), &folder) == 0 && Trusted(folder);
  while (struct dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    std::string path = dir + "/" + e->d_name;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) continue;
    if (S_ISREG(st.st_mode) && (st.st_mode & 0111) == 0) continue;  // not meant to run
    if (!folder_ok || !S_ISREG(st.st_mode) || !Trusted(st)) {
      syslog(LOG_WARNING,
             "reload hook %s not run: %s (owner uid %u, mode %06o); hooks must be regular "
             "files of root, writable by root alone, in a folder of the same kind",
             path.c_str(), !folder_ok ? "its folder is not trusted" : "not trusted",
             static_cast<unsigned>(st.st_uid), static_cast<unsigned>(st.st_mode));
      continue;
    }
    hooks->push_back(e->d_name);
  }
  closedir(d);
  std::sort(hooks->begin(), hooks->end());
  return true;
}

// A minimal environment, as cron or run-parts under systemd would give:
// a fixed PATH, the C locale and TAVO_ROOT, the platform root. Nothing of
// the caller's environment is passed on.
std::vector<std::string> HookEnvironment() {
  std::string root = tavo::TavoRootGet();
  return {"PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LANG=C",
          "TAVO_ROOT=" + (root.empty() ? std::string("/") : root)};
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
