#include "core/lock_path.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "core/os_util.h"
#include "tavo/root.h"

namespace tavo {
namespace internal {
namespace {

constexpr char kTmp[] = "/tmp/";
constexpr char kRuntimeDir[] = "/run/tavo";

int Refuse(const std::string& path, const char* what, const struct stat& st) {
  syslog(LOG_ERR,
         "lock: refusing %s: %s (owner uid %u, mode %04o; this service runs as uid %u). "
         "Remove it so that it is made again.",
         path.c_str(), what, static_cast<unsigned>(st.st_uid),
         static_cast<unsigned>(st.st_mode & 07777), static_cast<unsigned>(geteuid()));
  errno = EPERM;
  return -1;
}

// Opens ROOT/run/tavo, creating it (and ROOT/run) when missing, after the
// checks in the header. Returns a directory descriptor or -1.
int OpenRuntimeDir() {
  const std::string run = TavoRootPath("/run");
  const std::string dir = TavoRootPath(kRuntimeDir);
  if (mkdir(run.c_str(), 0755) != 0 && errno != EEXIST) return -1;
  struct stat st;
  if (lstat(run.c_str(), &st) != 0) return -1;
  if (!S_ISDIR(st.st_mode) || (st.st_uid != 0 && st.st_uid != geteuid()) ||
      ((st.st_mode & 022) != 0 && (st.st_mode & S_ISVTX) == 0))
    return Refuse(run, "not a folder of root or of this service, or writable by others", st);
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return -1;
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ELOOP || errno == ENOTDIR) {
      lstat(dir.c_str(), &st);
      return Refuse(dir, "not a real folder", st);
    }
    return -1;
  }
  if (fstat(fd, &st) != 0) {
    close(fd);
    return -1;
  }
  if (st.st_uid != geteuid()) {
    close(fd);
    return Refuse(dir, "the runtime folder belongs to another user", st);
  }
  // Ours, but once open to others: close it again (files others made in it
  // are refused below by their owner).
  if ((st.st_mode & 077) != 0 && fchmod(fd, 0700) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// The runtime folder once checked: its descriptor stays open for the lock
// files opened later, by any thread, for as long as its path still names the
// same folder with the same owner and no access for others (one lstat a use
// instead of the whole check).
struct CheckedDir {
  std::string path;
  int fd = -1;
  dev_t dev = 0;
  ino_t ino = 0;
  uid_t uid = 0;  // its owner: this service's user
  CheckedDir() = default;
  CheckedDir(const CheckedDir&) = delete;
  CheckedDir& operator=(const CheckedDir&) = delete;
  ~CheckedDir() {
    if (fd >= 0) close(fd);
  }
};

std::mutex g_dir_mu;
std::shared_ptr<const CheckedDir> g_dir;  // guarded by g_dir_mu

std::shared_ptr<const CheckedDir> RuntimeDir() {
  const std::string path = TavoRootPath(kRuntimeDir);
  std::shared_ptr<const CheckedDir> cached;
  {
    std::lock_guard<std::mutex> lock(g_dir_mu);
    cached = g_dir;
  }
  struct stat st;
  if (cached && cached->path == path && lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
      st.st_dev == cached->dev && st.st_ino == cached->ino && st.st_uid == geteuid() &&
      (st.st_mode & 077) == 0)
    return cached;
  auto fresh = std::make_shared<CheckedDir>();
  fresh->fd = OpenRuntimeDir();
  if (fresh->fd < 0 || fstat(fresh->fd, &st) != 0) return nullptr;
  fresh->path = path;
  fresh->dev = st.st_dev;
  fresh->ino = st.st_ino;
  fresh->uid = st.st_uid;
  std::lock_guard<std::mutex> lock(g_dir_mu);
  g_dir = fresh;
  return fresh;
}

}  // namespace

std::string LockFilePath(const std::string& abs_path) {
  const std::string tmp = kTmp;
  if (abs_path.compare(0, tmp.size(), tmp) != 0) return abs_path;
  const std::string name = abs_path.substr(tmp.size());
  if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..")
    return abs_path;
  return std::string(kRuntimeDir) + "/" + name;
}

bool MakeRuntimeDir() { return RuntimeDir() != nullptr; }

int OpenLockFile(const std::string& abs_path) {
  const int flags = O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW;
  const std::string lock = LockFilePath(abs_path);
  if (lock == abs_path) {
    // Elsewhere: as given, with missing folders made.
    const std::string path = TavoRootPath(abs_path);
    int fd = open(path.c_str(), flags, 0600);
    if (fd < 0 && errno == ENOENT && MakeParentDirs(path, 0755))
      fd = open(path.c_str(), flags, 0600);
    // A lock file that we may not write can still carry a lock.
    if (fd < 0 && (errno == EACCES || errno == EROFS))
      fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    return fd;
  }
  const std::string name = lock.substr(lock.rfind('/') + 1);
  const std::shared_ptr<const CheckedDir> dir = RuntimeDir();
  if (!dir) return -1;
  int fd = openat(dir->fd, name.c_str(), flags, 0600);
  if (fd < 0) {
    if (errno == ELOOP) {
      struct stat st {};
      lstat(TavoRootPath(lock).c_str(), &st);
      return Refuse(TavoRootPath(lock), "a symbolic link", st);
    }
    return -1;
  }
  struct stat st {};
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid()) {
    close(fd);
    return Refuse(TavoRootPath(lock), "not a regular file of this service", st);
  }
  return fd;
}

HeldLock& HeldLock::operator=(HeldLock&& o) noexcept {
  if (this != &o) {
    Release();
    fd_ = o.fd_;
    o.fd_ = -1;
  }
  return *this;
}

bool HeldLock::TryShared(const std::string& abs_path) {
  Release();
  const int fd = OpenLockFile(abs_path);
  if (fd < 0) return false;
  while (flock(fd, LOCK_SH | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    close(fd);
    return false;
  }
  fd_ = fd;
  return true;
}

void HeldLock::Release() {
  if (fd_ < 0) return;
  flock(fd_, LOCK_UN);
  close(fd_);
  fd_ = -1;
}

}  // namespace internal
}  // namespace tavo
