// One consistent view of the account files for the length of a request.
//
// While a ReadScope lives on a thread, every lookup of an account file made
// on that thread (through any platform call) sees the file as it was at its
// first lookup in the scope, and the kernel's change events for the account
// folders are read once rather than at every lookup. A server wraps one
// request in a scope: the login check and the module call then agree on the
// files, and the request pays for one look at them. A write made inside the
// scope (by this thread) drops what the scope holds, so later lookups see it.
//
// A scope also records which files it looked at, as which snapshots. A module
// whose answer was made from the account files alone says so with
// TavoAnswerReusable(); the server may then keep the answer with the scope's
// ReadSet and give it again, without calling the module, for as long as the
// set is current: every file it names is still the very snapshot the answer
// was made from (a change by this process or any other, a rewrite within
// one clock tick included, makes a new snapshot).
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
// Marks the answer being made in the current scope of this thread as
// depending on nothing but the account files the platform's calls looked up
// in it (no clock, no directory service, no other file). No effect outside a
// scope.
void TavoAnswerReusable(void);
}

#endif  // TAVO_READ_SCOPE_H_
