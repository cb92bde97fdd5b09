// Updating the store's write counters (tavo/store_stats.h).
// Thread-safety: any thread.
#ifndef TAVO_PLATFORM_STORE_STATS_INTERNAL_H_
#define TAVO_PLATFORM_STORE_STATS_INTERNAL_H_

#include <unistd.h>

#include <cstddef>

#include "tavo/store_stats.h"

namespace tavo {
namespace acct {

// fsync(2), counted and timed.
int TimedFsync(int fd);
// fdatasync(2), counted and timed with the fsyncs.
int TimedFdatasync(int fd);
// One commit of `files` files, whole or refused.
void CountCommit(bool whole, size_t files);

}  // namespace acct
}  // namespace tavo

#endif  // TAVO_PLATFORM_STORE_STATS_INTERNAL_H_
