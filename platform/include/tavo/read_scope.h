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
// Ownership: the scope holds the snapshots it has handed out until it ends.
// Thread-safety: a scope belongs to the thread that made it; scopes nest.
// Errors: none.
#ifndef TAVO_READ_SCOPE_H_
#define TAVO_READ_SCOPE_H_

namespace tavo {

class ReadScope {
 public:
  ReadScope();
  ~ReadScope();
  ReadScope(const ReadScope&) = delete;
  ReadScope& operator=(const ReadScope&) = delete;
};

}  // namespace tavo

#endif  // TAVO_READ_SCOPE_H_
