#include "core/pid_file.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstring>
#include <string>

#include "accounts/snapshot/pin.h"
#include "core/lock_path.h"
#include "tavo/error.h"
#include "tavo/root.h"
#include "tavo/util.h"

namespace tavo {
namespace internal {
namespace {

constexpr size_t kPidLineMax = 64;

bool Trusted(const struct stat& st) {
  return S_ISREG(st.st_mode) && (st.st_uid == 0 || st.st_uid == geteuid());
}

void LogRefusal(const std::string& path, const struct stat& st) {
  syslog(LOG_WARNING,
         "ignoring %s: not a regular file of root or of this service (owner uid %u, mode %06o); "
         "taken as absent",
         path.c_str(), static_cast<unsigned>(st.st_uid), static_cast<unsigned>(st.st_mode));
}

// Parses the first line of a pid file: optional blanks, decimal digits,
// optional blanks. Returns the positive number or -1.
int ParsePidLine(const std::string& text) {
  size_t i = 0, end = text.find('\n');
  if (end == std::string::npos) end = text.size();
  while (i < end && (text[i] == ' ' || text[i] == '\t')) ++i;
  long long value = 0;
  size_t digits = 0;
  for (; i < end && std::isdigit(static_cast<unsigned char>(text[i])); ++i, ++digits) {
    value = value * 10 + (text[i] - '0');
    if (value > INT_MAX) return -1;
  }
  while (i < end && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  if (digits == 0 || i != end || value <= 0) return -1;
  return static_cast<int>(value);
}

// The pid of `fd`'s file, or -1 with the error state set.
int ReadPid(int fd) {
  char buf[kPidLineMax];
  ssize_t n;
  do {
    n = pread(fd, buf, sizeof(buf), 0);
  } while (n < 0 && errno == EINTR);
  if (n < 0) return TAVO_ERR_SET(TAVO_ERR_IO);
  const int pid = ParsePidLine(std::string(buf, static_cast<size_t>(n)));
  return pid < 0 ? TAVO_ERR_SET(TAVO_ERR_FORMAT) : pid;
}

// Whether some open file description holds a write lock on `fd`'s file.
bool Held(int fd) {
  struct flock l {};
  l.l_type = F_RDLCK;
  l.l_whence = SEEK_SET;
  return fcntl(fd, F_OFD_GETLK, &l) == 0 && l.l_type != F_UNLCK;
}

}  // namespace

int OpenTrustedFile(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
  struct stat st {};
  if (fd < 0) {
    if (errno != ELOOP) return -1;
    lstat(path.c_str(), &st);
  } else if (fstat(fd, &st) != 0) {
    close(fd);
    return -1;
  } else if (Trusted(st)) {
    return fd;
  } else {
    close(fd);
  }
  LogRefusal(path, st);
  errno = EPERM;
  return -1;
}

bool RuntimeFileExists(const std::string& path) {
  const std::string real = TavoRootPath(path);
  struct stat st;
  if (lstat(real.c_str(), &st) != 0) return false;
  if (Trusted(st)) return true;
  LogRefusal(real, st);
  return false;
}

}  // namespace internal

int HoldPidFile(const char* path, int* holder, std::string* error) {
  *holder = -1;
  const std::string mapped = internal::LockFilePath(path);
  if (mapped != path && !internal::MakeRuntimeDir()) {
    *error = "the runtime folder " + TavoRootPath("/run/tavo") + " is refused (see the log)";
    return -1;
  }
  const std::string real = TavoRootPath(mapped);
  for (int tries = 0; tries < 8; ++tries) {
    int fd =
        open(real.c_str(), O_RDWR | O_CREAT | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC, 0644);
    struct stat st {};
    if (fd < 0 && errno != ELOOP) break;
    if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid()) {
      // Not ours: in the runtime folder, which is, whatever is there goes;
      // elsewhere it is refused.
      if (fd >= 0) close(fd);
      lstat(real.c_str(), &st);
      internal::LogRefusal(real, st);
      if (mapped == path) {
        *error = real + " is not a regular file of this service";
        return -1;
      }
      if (unlink(real.c_str()) != 0 && errno != ENOENT) break;
      continue;
    }
    struct flock l {};
    l.l_type = F_WRLCK;
    l.l_whence = SEEK_SET;
    if (fcntl(fd, F_OFD_SETLK, &l) != 0) {
      const int lock_error = errno;
      const int pid = internal::ReadPid(fd);
      close(fd);
      errno = lock_error;
      if (lock_error != EAGAIN && lock_error != EACCES) break;
      *holder = pid > 0 ? pid : 0;
      return -1;
    }
    // Locked: still the file that the path names (a holder that was ending
    // may have removed it in between)?
    struct stat now {};
    if (stat(real.c_str(), &now) != 0 || now.st_ino != st.st_ino || now.st_dev != st.st_dev) {
      close(fd);
      continue;
    }
    const std::string text = std::to_string(getpid()) + "\n";
    if (ftruncate(fd, 0) != 0 ||
        pwrite(fd, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
      *error = real + ": " + strerror(errno);
      unlink(real.c_str());
      close(fd);
      return -1;
    }
    return fd;
  }
  *error = real + ": cannot be made: " + strerror(errno);
  return -1;
}

void ReleasePidFile(const char* path, int fd) {
  if (fd < 0) return;
  unlink(TavoRootPath(internal::LockFilePath(path)).c_str());
  close(fd);
}

}  // namespace tavo

extern "C" {

int TLIBCReadPidFile(const char* path) {
  if (!path) return TAVO_ERR_SET(TAVO_ERR_ARGUMENT);
  // Outside the snapshots: an answer that looked at it is never given again.
  tavo::acct::internal::MarkNotReusable();
  const std::string real = tavo::TavoRootPath(tavo::internal::LockFilePath(path));
  int fd = tavo::internal::OpenTrustedFile(real);
  if (fd < 0)
    return TAVO_ERR_SET(errno == ENOENT || errno == EPERM ? TAVO_ERR_NOT_FOUND : TAVO_ERR_IO);
  int pid = tavo::internal::ReadPid(fd);
  // Counts only while its process holds it: a pid left by a process that
  // ended, or written by anything but a holder, names no work under way.
  if (pid > 0 && (!tavo::internal::Held(fd) || (kill(pid, 0) != 0 && errno != EPERM)))
    pid = TAVO_ERR_SET(TAVO_ERR_NOT_FOUND);
  close(fd);
  return pid;
}

}  // extern "C"
