// A process that answers one request and exits.
//
// The account store keeps, after each write, a snapshot of the bytes it
// wrote, so that the next request of a long-lived process (the server) reads
// nothing and parses nothing. A process that exits after one request (the
// command line's `call`) never uses it; at 100,000 groups building it costs
// more than a tenth of such a call. Such a process calls SetOneShotProcess()
// before its request: the store then drops what it wrote from its caches
// instead, and a later read in the process reads the files again (a creation
// still keeps etc/group's, which its caller reads the new group back from).
// It also sets up no watch of the account folders: a snapshot is checked
// against its file with stat(2) each time instead. Nothing else changes: what is written, and what every read answers, is the
// same.
//
// Thread-safety: call before the first request; it may be read from any thread.
// Errors: none.
#ifndef TAVO_ONE_SHOT_H_
#define TAVO_ONE_SHOT_H_

namespace tavo {

void SetOneShotProcess();
bool IsOneShotProcess();

}  // namespace tavo

#endif  // TAVO_ONE_SHOT_H_
