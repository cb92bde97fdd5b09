// Internal helpers: folders, environment, clocks.
#include "core/os_util.h"

#include <errno.h>
#include <sys/stat.h>
#include <time.h>

#include <cstdlib>

namespace tavo {
namespace internal {

bool MakeDirs(const std::string& dir, unsigned mode) {
  if (dir.empty()) return true;
  struct stat st;
  if (stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
  size_t slash = dir.find_last_of('/');
  if (slash != std::string::npos && slash > 0 && !MakeDirs(dir.substr(0, slash), mode)) {
    return false;
  }
  if (mkdir(dir.c_str(), mode) == 0) return true;
  // Another thread or process may have created it in between.
  return errno == EEXIST && stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool MakeParentDirs(const std::string& path, unsigned mode) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos || slash == 0) return true;
  return MakeDirs(path.substr(0, slash), mode);
}

long EnvMillis(const char* name, long def) {
  const char* text = std::getenv(name);
  if (!text || !*text) return def;
  char* end = nullptr;
  errno = 0;
  long value = std::strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || value < 0) return def;
  return value;
}

long long NowMillis() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void SleepMillis(long ms) {
  if (ms <= 0) return;
  struct timespec req;
  req.tv_sec = ms / 1000;
  req.tv_nsec = (ms % 1000) * 1000000L;
  while (nanosleep(&req, &req) != 0 && errno == EINTR) {
  }
}

}  // namespace internal
}  // namespace tavo
