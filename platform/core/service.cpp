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

#include "child_process.h"
#include "os_util.h"
#include "tavo/error.h"
#include "tavo/root.h"

extern char** environ;

namespace {

constexpr long kDefaultHookTimeoutMs = 5000;

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
