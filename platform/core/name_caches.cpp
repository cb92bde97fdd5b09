#include "core/name_caches.h"

#include <syslog.h>
#include <unistd.h>

#include "core/child_process.h"
#include "core/os_util.h"
#include "tavo/root.h"

namespace tavo {
namespace internal {
namespace {

constexpr long kDefaultTimeoutMs = 2000;
const char kNscd[] = "/usr/sbin/nscd";
const char kNscdSocket[] = "/var/run/nscd/socket";
const char kSssCache[] = "/usr/sbin/sss_cache";

bool EndsWith(const std::string& s, const char* tail) {
  const std::string t = tail;
  return s.size() >= t.size() && s.compare(s.size() - t.size(), t.size(), t) == 0;
}

void Run(const std::vector<std::string>& argv) {
  static const std::vector<std::string> kEnv = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C"};
  std::string problem;
  if (RunBounded(argv, kEnv, EnvMillis("TAVO_NAME_CACHE_TIMEOUT_MS", kDefaultTimeoutMs),
                 &problem) != RunOutcome::kSucceeded) {
    syslog(LOG_WARNING, "flushing the name cache with %s %s %s (the change stands)",
           argv[0].c_str(), argv[1].c_str(), problem.c_str());
  }
}

}  // namespace

void FlushNameCaches(const std::vector<std::string>& changed) {
  const std::string root = TavoRootGet();
  if (!root.empty() && root != "/") return;
  bool groups = false, users = false;
  for (const std::string& path : changed) {
    if (EndsWith(path, "/etc/group") || EndsWith(path, "/etc/gshadow")) groups = true;
    if (EndsWith(path, "/etc/passwd") || EndsWith(path, "/etc/shadow")) users = true;
  }
  if (!groups && !users) return;
  if (access(kNscdSocket, F_OK) == 0 && access(kNscd, X_OK) == 0) {
    if (groups) Run({kNscd, "-i", "group"});
    if (users) Run({kNscd, "-i", "passwd"});
  }
  if (access(kSssCache, X_OK) == 0) {
    if (groups) Run({kSssCache, "-G"});
    if (users) Run({kSssCache, "-U"});
  }
}

}  // namespace internal
}  // namespace tavo
