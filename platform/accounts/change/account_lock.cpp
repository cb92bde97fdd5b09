// Account-file locking compatible with the system's account tools.
#include "accounts/change/account_lock.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "accounts/acct_error.h"
#include "accounts/snapshot/pin.h"
#include "tavo/root.h"
#include "tavo/wait_notice.h"

namespace tavo {
namespace acct {
namespace {

using Clock = std::chrono::steady_clock;

std::mutex g_writer_mu;

void Backoff(int* delay_ms) {
  std::this_thread::sleep_for(std::chrono::milliseconds(*delay_ms));
  if (*delay_ms < 20) *delay_ms += 2;
}

std::string Dirname(const std::string& path) {
  size_t p = path.rfind('/');
  return p == std::string::npos ? "." : (p == 0 ? "/" : path.substr(0, p));
}

std::string Basename(const std::string& path) {
  size_t p = path.rfind('/');
  return p == std::string::npos ? path : path.substr(p + 1);
}

// The process id in a lock file, or -1 when it cannot be read.
long ReadLockPid(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  char buf[32] = {0};
  ssize_t n = read(fd, buf, sizeof buf - 1);
  close(fd);
  if (n <= 0) return -1;
  char* end = nullptr;
  long pid = std::strtol(buf, &end, 10);
  return (end == buf || pid <= 0) ? -1 : pid;
}

// One NAME.lock by the link protocol. 1: taken; 0: held by someone else;
// -1: error (state set).
int TryLinkLock(const std::string& tmp, const std::string& lock) {
  if (link(tmp.c_str(), lock.c_str()) == 0) {
    struct stat st;
    if (stat(tmp.c_str(), &st) == 0 && st.st_nlink == 2) return 1;
    unlink(lock.c_str());
    return 0;
  }
  if (errno != EEXIST) return TAVO_ERR_SET(TAVO_ERR_IO);
  long pid = ReadLockPid(lock);
  // A lock file that names no live process is stale. Our own pid is stale
  // too: while we hold the writer mutex no thread of ours holds the lock.
  if (pid == static_cast<long>(getpid()) ||
      (pid > 0 && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH)) {
    unlink(lock.c_str());
  }
  return 0;
}

}  // namespace

long LockTimeoutMillis() {
  const char* env = std::getenv("TAVO_LOCK_TIMEOUT_MS");
  if (!env || !*env) return 10000;
  char* end = nullptr;
  long v = std::strtol(env, &end, 10);
  return (*end || v < 0) ? 10000 : v;
}

AccountLock::~AccountLock() { Release(); }

bool AccountLock::Acquire(const std::vector<std::string>& files) {
  NoticeWait();  // waits, then a write and its sync
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(LockTimeoutMillis());
  int delay = 2;
  while (!g_writer_mu.try_lock()) {
    if (Clock::now() >= deadline) return ACCT_ERR(TAVO_ERR_LOCK), false;
    Backoff(&delay);
  }
  have_mutex_ = true;

  std::string pwd = TavoRootPath("/etc/.pwd.lock");
  pwd_fd_ = open(pwd.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (pwd_fd_ < 0) {
    Release();
    return ACCT_ERR(TAVO_ERR_IO), false;
  }
  delay = 2;
  for (;;) {
    struct flock fl = {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    if (fcntl(pwd_fd_, F_SETLK, &fl) == 0) break;
    if (errno != EACCES && errno != EAGAIN && errno != EINTR) {
      Release();
      return ACCT_ERR(TAVO_ERR_IO), false;
    }
    if (Clock::now() >= deadline) {
      Release();
      return ACCT_ERR(TAVO_ERR_LOCK), false;
    }
    Backoff(&delay);
  }

  for (const std::string& file : files) {
    if (access(file.c_str(), F_OK) != 0) continue;
    std::string lock = file + ".lock";
    std::string tmp = Dirname(file) + "/." + Basename(file) + ".tavolock.XXXXXX";
    int fd = mkstemp(tmp.data());
    if (fd < 0) {
      Release();
      return ACCT_ERR(TAVO_ERR_IO), false;
    }
    std::string pid = std::to_string(getpid());
    bool wrote = write(fd, pid.data(), pid.size()) == static_cast<ssize_t>(pid.size());
    close(fd);
    int got = wrote ? 0 : TAVO_ERR_SET(TAVO_ERR_IO);
    delay = 2;
    while (got == 0) {
      got = TryLinkLock(tmp, lock);
      if (got != 0) break;
      if (Clock::now() >= deadline) {
        got = TAVO_ERR_SET(TAVO_ERR_LOCK);
        break;
      }
      Backoff(&delay);
    }
    unlink(tmp.c_str());
    if (got != 1) {
      Release();
      return false;
    }
    lock_files_.push_back(lock);
  }
  internal::LockTaken(nullptr, true);
  return true;
}

void AccountLock::Release() {
  for (auto it = lock_files_.rbegin(); it != lock_files_.rend(); ++it) unlink(it->c_str());
  lock_files_.clear();
  if (pwd_fd_ >= 0) {
    close(pwd_fd_);  // drops the fcntl lock
    pwd_fd_ = -1;
  }
  if (have_mutex_) {
    g_writer_mu.unlock();
    have_mutex_ = false;
  }
}

}  // namespace acct
}  // namespace tavo
