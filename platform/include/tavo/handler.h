// ServerFormHandler: the base class of a module's request handlers, with the
// handler lock and lock files.
//
// The handler lock is a lock on the file given to the constructor (an absolute
// platform path such as "/tmp/grouplock", resolved inside the root). ShLock
// takes it shared, ExLock exclusive; calling either again converts the lock.
// A conversion is not atomic (flock drops the old lock before taking the new
// one), and a conversion that fails leaves the handler holding no lock. The
// lock is released when the handler is destroyed, at the latest.
//
// Locks are flock(2) locks on a descriptor of the handler's own, so they
// exclude other threads of the same process as well as other processes. Each
// wait is bounded: the lock is retried until the platform's lock timeout
// (TAVO_LOCK_TIMEOUT_MS in the environment, default 10000 ms) runs out, then
// refused with TAVO_ERR_LOCK. Lock files are created (mode 0600, with missing
// parent folders) when absent and hold no data. Lock descriptors are
// close-on-exec, so child processes never hold a lock.
//
// Every lock taken (ShLock, ExLock, LockFile) ends the calling thread's view
// of the account files inside a read scope (tavo/read_scope.h): what is read
// after it shows the files as they are once the lock is held, also when
// another process changed them while this one waited.
//
// Thread-safety: a handler object belongs to one thread. LockFile/UnlockFile
// may be called from any thread.
#ifndef TAVO_HANDLER_H_
#define TAVO_HANDLER_H_

#include <string>

class ServerFormHandler {
 public:
  // `lock_path` is the handler lock's absolute platform path; null means the
  // handler has no lock and ShLock/ExLock fail with TAVO_ERR_ARGUMENT.
  explicit ServerFormHandler(const char* lock_path);

  // The virtual slots, in this order.
  virtual int Process();            // default: 0, does nothing
  virtual int HandleLoadAction();   // default: 0, does nothing
  virtual int HandleApplyAction();  // default: 0, does nothing
  virtual ~ServerFormHandler();     // releases the handler lock if held
  virtual bool ExLock();            // exclusive handler lock; false + error state on failure
  virtual bool ShLock();            // shared handler lock; false + error state on failure
  virtual bool Authenticate();      // default: true (the server authenticates)

  // Locks the file at the absolute platform path `path`: `exclusive` true takes
  // an exclusive lock, false a shared one (readers of the user database pass
  // false). On success stores a new descriptor in *fd, which the caller owns
  // and must give back to UnlockFile. On failure returns false, leaves *fd
  // unchanged and sets the error state (TAVO_ERR_ARGUMENT for null arguments,
  // TAVO_ERR_IO if the file cannot be opened, TAVO_ERR_LOCK on time-out).
  static bool LockFile(const char* path, bool exclusive, int* fd);
  // Releases and closes a descriptor from LockFile. Negative values are ignored.
  static void UnlockFile(int fd);

  ServerFormHandler(const ServerFormHandler&) = delete;
  ServerFormHandler& operator=(const ServerFormHandler&) = delete;

 private:
  bool TakeHandlerLock(bool exclusive);

  std::string lock_path_;
  bool has_lock_path_;
  int lock_fd_ = -1;
};

#endif  // TAVO_HANDLER_H_
