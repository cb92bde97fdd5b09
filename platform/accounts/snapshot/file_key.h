// File keys and whole-file reads: what the snapshot caches (snapshot.h) know
// of a file, and how they read it.
//
// A file's key is its device, inode, size, modification and change times,
// plus a generation that InvalidateSnapshot bumps: a writer of this process
// calls it after each write, so a key read before never matches after.
//
// Thread-safety: every function may be called from any thread.
// Errors: the readers return false with the error state set (TAVO_ERR_IO, or
// TAVO_ERR_NOMEM); a missing file is no error (key.exists = false).
#ifndef TAVO_PLATFORM_FILE_KEY_H_
#define TAVO_PLATFORM_FILE_KEY_H_

#include <cstddef>
#include <string>
#include <string_view>

#include "accounts/snapshot/file_bytes.h"

namespace tavo {
namespace acct {

// Files larger than this are not read (TAVO_ERR_IO): snapshots address their
// bytes with 32-bit offsets, and no account file comes near it.
constexpr size_t kMaxSnapshotBytes = size_t{1} << 30;

struct FileKey {
  bool exists = false;
  unsigned long long dev = 0, ino = 0, size = 0;
  long long mtime_ns = 0, ctime_ns = 0;
  unsigned long long generation = 0;  // bumped by InvalidateSnapshot
  bool operator==(const FileKey& o) const {
    return exists == o.exists && dev == o.dev && ino == o.ino && size == o.size &&
           mtime_ns == o.mtime_ns && ctime_ns == o.ctime_ns && generation == o.generation;
  }
};

// The key of the file at `path` as it is now (exists=false when missing).
// False (error state set) for a stat failure other than a missing file.
bool StatKey(const std::string& path, FileKey* key);
// Reads the whole file with the key of the descriptor it was read from.
// A missing file gives "" with key.exists=false and true.
bool ReadWholeFile(const std::string& path, std::string* content, FileKey* key);
// As ReadWholeFile, for a snapshot: in a one-off process (one_shot.h) a file
// of kMapBytes or more is mapped rather than read (file_bytes.h).
bool ReadFileBytes(const std::string& path, FileBytes* content, FileKey* key);
constexpr size_t kMapBytes = 256u << 10;
// True when the file at `path` holds exactly `bytes` (read in pieces and
// compared, nothing kept), with the key of the descriptor it was read from.
bool FileHoldsBytes(const std::string& path, std::string_view bytes, FileKey* key);
// True when a file with this key changed so recently that a further change
// could still leave the key as it is.
bool RecentlyChanged(const FileKey& key);
// Asks the kernel to map the pages of a large fresh heap block in one go,
// rather than one page fault at a time as it is first written (page faults
// are costly on virtual machines), as huge pages where whole 2 MiB blocks lie
// inside it and the system allows them. Best effort; small blocks are left
// alone.
void PrefaultHeap(void* p, size_t bytes);
// Reserves room for `n` elements and prefaults it.
template <typename V>
void ReservePrefaulted(V* v, size_t n) {
  v->reserve(n);
  if (v->capacity() > 0) PrefaultHeap(v->data(), v->capacity() * sizeof(*v->data()));
}
// Forces every cache to re-read the file at `path` on its next Get, and ends
// what this thread's pin holds (pin.h).
void InvalidateSnapshot(const std::string& path);
// The count of invalidations of `path` so far (part of its key).
unsigned long long SnapshotGeneration(const std::string& path);
bool ReportMissing(const std::string& path);  // sets TAVO_ERR_IO, returns false

}  // namespace acct
}  // namespace tavo

#endif  // TAVO_PLATFORM_FILE_KEY_H_
