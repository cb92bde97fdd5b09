// Where lock files live, and opening them safely.
//
// The module names its locks "/tmp/grouplock" and "/tmp/userlock". A lock
// file named directly in /tmp lives instead in the runtime folder
// ROOT/run/tavo (mode 0700, owned by the service's user): in a world-writable
// /tmp any local user could create the file first and hold a lock on it, and
// a private /tmp of the service (systemd's PrivateTmp=) would split one lock
// between the service and `tavo call` on the console. Other lock paths are
// used as given, inside the root.
//
// The runtime folder is created when missing. It is refused when it is not a
// real folder owned by this process's effective user, or when ROOT/run is
// writable by others without the sticky bit; a lock file in it that is not a
// regular file owned by that user is refused too. Each refusal is logged to
// syslog at LOG_ERR with the path, the owner found and what to do. Once
// checked, the folder stays open for later lock files while its path names
// the same folder, still this user's and closed to others (one lstat). Lock
// files themselves are opened for each lock and closed when it ends: the
// caller owns the descriptor.
//
// Thread-safety: any thread. Errors: -1 with errno set (EPERM for a refusal).
#ifndef TAVO_PLATFORM_LOCK_PATH_H_
#define TAVO_PLATFORM_LOCK_PATH_H_

#include <string>

namespace tavo {
namespace internal {

// The platform path of the lock file named `abs_path` ("/tmp/grouplock" ->
// "/run/tavo/grouplock"; others unchanged). Pid and marker files named
// directly in /tmp are mapped alike (pid_file.h).
std::string LockFilePath(const std::string& abs_path);
// Makes the runtime folder when missing; false (logged) when it is refused.
bool MakeRuntimeDir();
// Opens (creating when needed) the lock file named `abs_path` for reading
// and writing. Returns the descriptor (close-on-exec), which the caller
// closes, or -1.
int OpenLockFile(const std::string& abs_path);

// One lock file, opened and locked; released and closed when the handle
// ends. Move-only.
class HeldLock {
 public:
  HeldLock() = default;
  ~HeldLock() { Release(); }
  HeldLock(HeldLock&& o) noexcept : fd_(o.fd_) { o.fd_ = -1; }
  HeldLock& operator=(HeldLock&& o) noexcept;
  HeldLock(const HeldLock&) = delete;
  HeldLock& operator=(const HeldLock&) = delete;
  // Takes a shared lock on the lock file named `abs_path` without waiting:
  // false when another holds it exclusively, or it cannot be opened.
  bool TryShared(const std::string& abs_path);
  void Release();

 private:
  int fd_ = -1;
};

}  // namespace internal
}  // namespace tavo

#endif  // TAVO_PLATFORM_LOCK_PATH_H_
