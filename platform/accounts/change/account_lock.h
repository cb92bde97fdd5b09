// The account tools' locks, for writers of the account files.
//
// AccountLock::Acquire takes, in this order:
//   1. a process-wide mutex (fcntl locks belong to the whole process, so the
//      mutex is what keeps this process's own threads apart);
//   2. an fcntl write lock on ROOT/etc/.pwd.lock;
//   3. for each file NAME, the lock file NAME.lock by the tools' link
//      protocol: the process id is written to a uniquely named file in the same
//      folder, which is linked to NAME.lock; the lock is ours when the link
//      succeeds and the file then has two links. A NAME.lock whose process is
//      gone is removed.
// Every wait is bounded by TAVO_LOCK_TIMEOUT_MS (environment, default 10000 ms)
// overall; then Acquire fails with TAVO_ERR_LOCK and holds nothing.
// Everything is released, in reverse order, by the destructor.
//
// Ownership: the object owns the descriptor and the lock files it created.
// Thread-safety: one object per writer; objects may be used on any threads.
#ifndef TAVO_PLATFORM_ACCOUNT_LOCK_H_
#define TAVO_PLATFORM_ACCOUNT_LOCK_H_

#include <string>
#include <vector>

namespace tavo {
namespace acct {

class AccountLock {
 public:
  AccountLock() = default;
  ~AccountLock();
  AccountLock(const AccountLock&) = delete;
  AccountLock& operator=(const AccountLock&) = delete;

  // `files`: host paths (inside the root) of the files to be written; only
  // files that exist get a NAME.lock. True on success; false with the error
  // state set (TAVO_ERR_LOCK on time-out, TAVO_ERR_IO).
  bool Acquire(const std::vector<std::string>& files);
  void Release();

 private:
  bool have_mutex_ = false;
  int pwd_fd_ = -1;
  std::vector<std::string> lock_files_;  // NAME.lock files we hold
};

// The lock timeout in milliseconds (TAVO_LOCK_TIMEOUT_MS, default 10000).
long LockTimeoutMillis();

}  // namespace acct
}  // namespace tavo

#endif  // TAVO_PLATFORM_ACCOUNT_LOCK_H_
