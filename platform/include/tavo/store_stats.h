// Counters of the account store's writes in this process, for monitoring.
//
// A change of the account files is one commit: its files are written to
// temporary files and fsynced, a journal is written, the files are renamed
// into place and their folders fsynced. Every commit, whether it succeeded,
// and the time spent in fsync are counted from the start of the process.
//
// Thread-safety: GetStoreStats may be called from any thread; the counters
// are updated atomically (a snapshot may mix counts of a commit in flight).
// Errors: none.
#ifndef TAVO_STORE_STATS_H_
#define TAVO_STORE_STATS_H_

#include <cstdint>

namespace tavo {

struct StoreStats {
  uint64_t commits = 0;         // changes written whole
  uint64_t failed_commits = 0;  // changes refused by a failed write (the old files kept)
  uint64_t files_written = 0;   // account files replaced
  uint64_t fsyncs = 0;          // fsync calls on files and folders
  uint64_t fsync_ns = 0;        // total time in those calls, in nanoseconds
};

StoreStats GetStoreStats();

}  // namespace tavo

#endif  // TAVO_STORE_STATS_H_
