// ServerFormHandler: handler lock and lock files, with flock(2) and bounded
// waits.
#include "tavo/handler.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>

#include "accounts/snapshot/pin.h"
#include "core/lock_path.h"
#include "core/os_util.h"
#include "tavo/error.h"
#include "tavo/root.h"
#include "tavo/testing.h"
#include "tavo/wait_notice.h"

namespace {

constexpr long kDefaultLockTimeoutMs = 10000;
constexpr long kFirstBackoffMs = 2;
constexpr long kMaxBackoffMs = 20;

// Opens the lock file named by the platform path (lock_path.h).
int OpenLockFile(const char* abs_path) { return tavo::internal::OpenLockFile(abs_path); }

// Takes a flock of kind `op` (LOCK_SH or LOCK_EX) on `fd`, retrying without
// blocking until the platform's lock timeout runs out. On failure sets the
// error state (TAVO_ERR_LOCK on time-out, TAVO_ERR_IO otherwise).
bool FlockBounded(int fd, int op) {
  const long timeout = tavo::internal::EnvMillis("TAVO_LOCK_TIMEOUT_MS", kDefaultLockTimeoutMs);
  const long long deadline = tavo::internal::NowMillis() + timeout;
  long backoff = kFirstBackoffMs;
  if (op == LOCK_EX) tavo::NoticeWait();  // a write and its sync follow
  for (;;) {
    if (flock(fd, op | LOCK_NB) == 0) return true;
    if (errno == EINTR) continue;
    if (errno != EWOULDBLOCK) {
      TAVO_ERR_SET(TAVO_ERR_IO);
      return false;
    }
    long long left = deadline - tavo::internal::NowMillis();
    if (left <= 0) {
      TAVO_ERR_SET(TAVO_ERR_LOCK);
      return false;
    }
    tavo::NoticeWait();
    tavo::internal::SleepMillis(static_cast<long>(std::min<long long>(backoff, left)));
    backoff = std::min(backoff * 2, kMaxBackoffMs);
  }
}

}  // namespace

ServerFormHandler::ServerFormHandler(const char* lock_path)
    : lock_path_(lock_path ? lock_path : ""), has_lock_path_(lock_path != nullptr) {}

ServerFormHandler::~ServerFormHandler() {
  if (lock_fd_ >= 0) {
    flock(lock_fd_, LOCK_UN);
    close(lock_fd_);
  }
}

int ServerFormHandler::Process() { return 0; }
int ServerFormHandler::HandleLoadAction() { return 0; }
int ServerFormHandler::HandleApplyAction() { return 0; }
bool ServerFormHandler::ExLock() { return TakeHandlerLock(true); }
bool ServerFormHandler::ShLock() { return TakeHandlerLock(false); }
bool ServerFormHandler::Authenticate() { return true; }

// The descriptor stays open exactly while a lock is held. flock converts a
// held lock in place; the conversion is not atomic (the kernel drops the old
// lock first), so a conversion that fails leaves the handler without a lock.
bool ServerFormHandler::TakeHandlerLock(bool exclusive) {
  if (TAVO_FAULT("lock.handler")) return false;
  if (!has_lock_path_) {
    TAVO_ERR_SET(TAVO_ERR_ARGUMENT);
    return false;
  }
  if (lock_fd_ < 0) {
    lock_fd_ = OpenLockFile(lock_path_.c_str());
    if (lock_fd_ < 0) {
      TAVO_ERR_SET(TAVO_ERR_IO);
      return false;
    }
  }
  if (FlockBounded(lock_fd_, exclusive ? LOCK_EX : LOCK_SH)) {
    tavo::acct::internal::LockTaken(lock_path_.c_str(), exclusive);
    return true;
  }
  // A failed conversion may have dropped the lock held: unlock in any case.
  flock(lock_fd_, LOCK_UN);
  close(lock_fd_);
  lock_fd_ = -1;
  return false;
}

bool ServerFormHandler::LockFile(const char* path, bool exclusive, int* fd) {
  if (TAVO_FAULT("lock.file")) return false;
  if (!path || !fd) {
    TAVO_ERR_SET(TAVO_ERR_ARGUMENT);
    return false;
  }
  int lock_fd = OpenLockFile(path);
  if (lock_fd < 0) {
    TAVO_ERR_SET(TAVO_ERR_IO);
    return false;
  }
  if (!FlockBounded(lock_fd, exclusive ? LOCK_EX : LOCK_SH)) {
    close(lock_fd);
    return false;
  }
  tavo::acct::internal::LockTaken(path, exclusive);
  *fd = lock_fd;
  return true;
}

void ServerFormHandler::UnlockFile(int fd) {
  if (fd < 0) return;
  flock(fd, LOCK_UN);
  close(fd);
}
