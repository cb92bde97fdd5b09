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
// against its file with stat(2) each time instead. And it maps large account
// files (256 KiB or more) read-only instead of reading them into memory of
// its own, which a fresh process must first have zeroed: at 100,000 groups
// that was about a quarter of a membership change. A mapped file that a tool
// ignoring the account locks cuts short in place while the call reads it
// raises SIGBUS; unless the process handles SIGBUS itself, SetOneShotProcess
// makes it print why and exit with status 1 (nothing of a change is in place
// before its reads are done). Nothing else changes: what is written, and what every read answers,
// is the same.
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
