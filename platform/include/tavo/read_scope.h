// One consistent view of the account files for the length of a request.
//
// While a ReadScope lives on a thread, every lookup of an account file made
// on that thread (through any platform call) sees the file as it was at its
// first lookup in the scope, and the kernel's change events for the account
// folders are read once rather than at every lookup. A server wraps one
// request in a scope, and the request pays for one look at the files. Two
// things end that view: a write made inside the scope (by this thread), and
// the taking of a handler lock, a lock file or the account locks: what was
// read before the wait may have been changed by whoever held the lock, so
// every lookup after it sees the files as they are then.
//
// A scope also records which files it looked at, as which snapshots, and
// which handler locks were taken. A module whose answer was made from the
// account files alone says so with TavoAnswerReusable(); the server may then
// keep the answer with the scope's ReadSet and give it again, without calling
// the module, for as long as the set is current: every file it names is still
// the very snapshot the answer was made from (a change by this process or
// any other, a rewrite within one clock tick included, makes a new snapshot).
// The claim alone is not enough: a platform call that reads the clock, a file
// that no snapshot tracks or a directory's state, a write, or an exclusive
// lock leaves the scope without a ReadSet.
//
// Ownership: the scope holds the snapshots it has handed out until it ends;
// a ReadSet holds none (only their identities), so a kept answer never keeps
// an old copy of a file in memory.
// Thread-safety: a scope belongs to the thread that made it; scopes nest. A
// ReadSet is immutable and may be shared; Current() runs on the calling
// thread's scope.
// Errors: none.
#ifndef TAVO_READ_SCOPE_H_
#define TAVO_READ_SCOPE_H_

#include <memory>

namespace tavo {

class ReadSet {
 public:
  struct Impl;
  explicit ReadSet(std::unique_ptr<Impl> impl);
  ~ReadSet();
  ReadSet(const ReadSet&) = delete;
  ReadSet& operator=(const ReadSet&) = delete;
  // True when every file of the set, looked up now, is still the snapshot it
  // was when the set was made, under the same root. Call it inside a
  // ReadScope: the files are then looked up as that scope sees them, so an
  // answer given on the strength of it agrees with the rest of the request.
  bool Current() const;
  // A kept answer is given only as the call that made it would be: under the
  // handler locks that call took, all shared. Check takes them, without
  // waiting, and while it holds them tells whether the set is Current.
  // kBusy when another holds one of them exclusively: the call must then be
  // made afresh, which waits for the lock, within the bound of any call, and
  // answers as such a call does.
  enum class Reuse { kCurrent, kStale, kBusy };
  Reuse Check() const;
  // The number of files in the set.
  size_t size() const;

 private:
  std::unique_ptr<Impl> impl_;
};

class ReadScope {
 public:
  ReadScope();
  ~ReadScope();
  ReadScope(const ReadScope&) = delete;
  ReadScope& operator=(const ReadScope&) = delete;
  // The files this scope has looked at so far, when a call made in it marked
  // its answer reusable and nothing was written in it; null otherwise, and
  // always null from a scope nested in another.
  std::shared_ptr<const ReadSet> Reads() const;
};

}  // namespace tavo

extern "C" {
// Claims that the answer being made in the current scope of this thread
// depends on nothing but the account files the platform's calls looked up in
// it (no clock, no directory service, no other file). No effect outside a
// scope, nor when a platform call of the scope read something else.
void TavoAnswerReusable(void);
}

#endif  // TAVO_READ_SCOPE_H_
