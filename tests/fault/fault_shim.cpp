#include "fault/fault_shim.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

namespace fault_shim {
namespace {

std::mutex mu;
std::string armed_prefix;  // guarded by mu; "" when disarmed
std::atomic<long> calls{0};
long fail_at = 0;
std::atomic<bool> count_reads{false};
std::string failed;  // guarded by mu

template <typename F>
F Real(const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

bool Under(const char* path) {
  std::lock_guard<std::mutex> lock(mu);
  return !armed_prefix.empty() && path != nullptr &&
         strncmp(path, armed_prefix.c_str(), armed_prefix.size()) == 0;
}

bool FdUnder(int fd) {
  char link[64], target[4096];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  ssize_t n = readlink(link, target, sizeof target - 1);
  if (n <= 0) return false;
  target[n] = '\0';
  return Under(target);
}

// True when this call is the one to fail (errno is then set).
bool Fail(const char* op, const char* path, bool counted, int err) {
  if (!counted) return false;
  long n = ++calls;
  std::lock_guard<std::mutex> lock(mu);
  if (n != fail_at) return false;
  failed = std::string(op) + " " + (path ? path : "?");
  errno = err;
  return true;
}

}  // namespace

void Arm(const std::string& prefix, long at, bool reads) {
  std::lock_guard<std::mutex> lock(mu);
  count_reads = reads;
  armed_prefix = prefix;
  calls = 0;
  fail_at = at;
  failed.clear();
}

void Disarm() {
  std::lock_guard<std::mutex> lock(mu);
  armed_prefix.clear();
  fail_at = 0;
}

long Calls() { return calls; }

std::string Failed() {
  std::lock_guard<std::mutex> lock(mu);
  return failed;
}

}  // namespace fault_shim

using fault_shim::Fail;
using fault_shim::FdUnder;
using fault_shim::Real;
using fault_shim::Under;

extern "C" {

static int OpenCommon(const char* name, const char* path, int flags, va_list ap) {
  mode_t mode = (flags & (O_CREAT | O_TMPFILE)) ? va_arg(ap, mode_t) : 0;
  const bool writing = (flags & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC)) != 0;
  if (Fail("open", path, (writing || fault_shim::count_reads) && Under(path), EIO)) return -1;
  using Fn = int (*)(const char*, int, ...);
  return Real<Fn>(name)(path, flags, mode);
}

int open(const char* path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  int r = OpenCommon("open", path, flags, ap);
  va_end(ap);
  return r;
}

int open64(const char* path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  int r = OpenCommon("open64", path, flags, ap);
  va_end(ap);
  return r;
}

int mkstemp(char* templ) {
  if (Fail("open", templ, Under(templ), EIO)) return -1;
  return Real<int (*)(char*)>("mkstemp")(templ);
}

int mkostemp(char* templ, int flags) {
  if (Fail("open", templ, Under(templ), EIO)) return -1;
  return Real<int (*)(char*, int)>("mkostemp")(templ, flags);
}

ssize_t write(int fd, const void* buf, size_t count) {
  if (Fail("write", "fd", FdUnder(fd), ENOSPC)) return -1;
  return Real<ssize_t (*)(int, const void*, size_t)>("write")(fd, buf, count);
}

ssize_t pwrite64(int fd, const void* buf, size_t count, off_t offset) {
  if (Fail("write", "fd", FdUnder(fd), ENOSPC)) return -1;
  return Real<ssize_t (*)(int, const void*, size_t, off_t)>("pwrite64")(fd, buf, count, offset);
}

int ftruncate(int fd, off_t length) {
  if (Fail("ftruncate", "fd", FdUnder(fd), EIO)) return -1;
  return Real<int (*)(int, off_t)>("ftruncate")(fd, length);
}

int ftruncate64(int fd, off_t length) {
  if (Fail("ftruncate", "fd", FdUnder(fd), EIO)) return -1;
  return Real<int (*)(int, off_t)>("ftruncate64")(fd, length);
}

int fsync(int fd) {
  if (Fail("fsync", "fd", FdUnder(fd), EIO)) return -1;
  return Real<int (*)(int)>("fsync")(fd);
}

int fdatasync(int fd) {
  if (Fail("fsync", "fd", FdUnder(fd), EIO)) return -1;
  return Real<int (*)(int)>("fdatasync")(fd);
}

int rename(const char* from, const char* to) {
  if (Fail("rename", to, Under(from) || Under(to), EIO)) return -1;
  return Real<int (*)(const char*, const char*)>("rename")(from, to);
}

int link(const char* from, const char* to) {
  if (Fail("link", to, Under(from) || Under(to), EIO)) return -1;
  return Real<int (*)(const char*, const char*)>("link")(from, to);
}

int unlink(const char* path) {
  if (Fail("unlink", path, Under(path), EIO)) return -1;
  return Real<int (*)(const char*)>("unlink")(path);
}

int mkdir(const char* path, mode_t mode) {
  if (Fail("mkdir", path, Under(path), EIO)) return -1;
  return Real<int (*)(const char*, mode_t)>("mkdir")(path, mode);
}

}  // extern "C"
