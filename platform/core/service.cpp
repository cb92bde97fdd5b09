// Service reload: runs the hooks of ROOT/etc/tavo/reload.d, each within a
// time bound.
#include "tavo/service.h"

#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "accounts/snapshot/pin.h"
#include "core/child_process.h"
#include "core/os_util.h"
#include "tavo/error.h"
#include "tavo/root.h"

namespace {

constexpr long kDefaultHookTimeoutMs = 5000;

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
  const std::vector<std::string> env = HookEnvironment();
  int ran = 0;
  for (const std::string& name : hooks) {
    const std::string path = dir + "/" + name;
    std::string problem;
    auto outcome = tavo::internal::RunBounded({path, std::to_string(type)}, env, timeout, &problem);
    if (outcome != tavo::internal::RunOutcome::kNotStarted) ++ran;
    if (outcome != tavo::internal::RunOutcome::kSucceeded)
      syslog(LOG_WARNING, "reload hook %s %s", path.c_str(), problem.c_str());
  }
  return ran;
}

}  // extern "C"
