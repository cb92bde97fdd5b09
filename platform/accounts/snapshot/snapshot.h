// Cached, immutable snapshots of files, keyed on the file's identity and time.
//
// Before it looks at the file, Get asks for the change count of the file's
// folder (folder_watch.h): while the count is the one seen when the file was
// read, the snapshot is returned without a stat. Otherwise, or when the
// count is unknown, the file's key decides, as follows.
// SnapshotCache<T>::Get(path) returns the parsed form of the file as it is now.
// (A snapshot type that keeps the file's bytes, as T::Text(), is checked
// against the bytes when its key is too recent to be trusted: equal bytes
// keep the snapshot instead of parsing the file again.)
// The parse is kept and shared (shared_ptr<const T>) until the file's device,
// inode, size, modification time or change time differ, so a file is parsed
// once per change however many lookups follow. Writers in this process call
// InvalidateSnapshot(path) after a write. Another process may rewrite a file
// in place with the same size within one tick of the file system's clock,
// leaving every part of the key as it was; so a file whose change time was
// that recent when it was read is read again on the next Get, until a read
// happens well after its last change.
//
// Ownership: a returned snapshot stays valid for as long as the caller holds
// the pointer, also after the file changes.
// Thread-safety: Get and InvalidateSnapshot may be called from any thread; the
// snapshots themselves are immutable.
// Errors: ReadWholeFile and Get return false / null with the error state set
// (TAVO_ERR_IO, or TAVO_ERR_NOMEM); a missing file is an empty file when the
// cache was built with `missing_ok`.
#ifndef TAVO_PLATFORM_SNAPSHOT_H_
#define TAVO_PLATFORM_SNAPSHOT_H_

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "file_bytes.h"
#include "folder_watch.h"
#include "tavo/root.h"

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
// Forces every cache to re-read the file at `path` on its next Get.
void InvalidateSnapshot(const std::string& path);

// While a SnapshotPin lives, every Get on its thread returns the snapshot the
// first Get of that file returned in the pin's lifetime, without looking at
// the file again: one call (an enumeration and the lookups its callback
// makes) then sees the files at one point in time and stats each file once.
// Pins nest; InvalidateSnapshot drops what the thread's pin holds.
// Thread-safety: a pin belongs to the thread that made it.
class SnapshotPin {
 public:
  SnapshotPin();
  ~SnapshotPin();
  SnapshotPin(const SnapshotPin&) = delete;
  SnapshotPin& operator=(const SnapshotPin&) = delete;
  // Ends one level of pin on this thread (what the destructor does).
  static void Release();
};

namespace internal {
// The value pinned on this thread for (cache, path); null when none or when
// no pin is alive.
std::shared_ptr<const void> PinnedValue(const void* cache, const std::string& path);
// The value pinned for (cache, platform path `abs` under root generation
// `root`): found without resolving the path. Null when none.
std::shared_ptr<const void> PinnedAt(const void* cache, const char* abs, unsigned long long root);
// Looks the file at `path` up again in `cache` (SnapshotCache<T>::Get).
using Refetch = std::shared_ptr<const void> (*)(const void* cache, const std::string& path);
// Keeps `value` for (cache, path) when a pin is alive on this thread; also
// under (abs, root) when `abs` is given. `refetch` lets a read set made from
// the pin (read_scope.h) look the file up again later.
void PinValue(const void* cache, const std::string& path, std::shared_ptr<const void> value,
              Refetch refetch, const char* abs = nullptr, unsigned long long root = 0);
// True once per pin (and always without one): whether a Get on this thread
// must read the folders' pending change events, rather than use the counts
// as of the read made earlier in the same pin.
bool ReadEventsNow();
}  // namespace internal
// The count of invalidations of `path` so far (part of its key).
unsigned long long SnapshotGeneration(const std::string& path);

template <typename T>
class SnapshotCache {
 public:
  using Parser = std::function<std::shared_ptr<T>(FileBytes content)>;
  SnapshotCache(Parser parser, bool missing_ok)
      : parser_(std::move(parser)), missing_ok_(missing_ok) {}

  // `path` is a host path (already inside the root).
  std::shared_ptr<const T> Get(const std::string& path);
  // As Get(TavoRootPath(abs_path)) for a platform path with static storage
  // (a constant): under a pin, found again without resolving the path.
  std::shared_ptr<const T> GetAt(const char* abs_path);
  // As Get, but never the value a pin holds: what a writer under the
  // account locks must see.
  std::shared_ptr<const T> GetUnpinned(const std::string& path) { return GetFresh(path, true); }
  // Keeps `value` as the snapshot of the file as it is now (a writer that
  // just replaced the file, still under the account locks, installs the
  // snapshot made from the bytes it wrote). Best effort.
  void Install(const std::string& path, std::shared_ptr<const T> value);

 private:
  static std::shared_ptr<const void> RefetchFrom(const void* cache, const std::string& path) {
    return const_cast<SnapshotCache*>(static_cast<const SnapshotCache*>(cache))->Get(path);
  }
  // `read_events`: read the folders' pending change events first (false only
  // for a lookup of a pinned call after the call's first).
  std::shared_ptr<const T> GetFresh(const std::string& path, bool read_events);
  struct Entry {
    FileKey key;
    bool recent;  // read within a clock tick or so of its change: not trusted
    std::shared_ptr<const T> value;
    unsigned long long epoch;  // its folder's change count before it was read; 0: unknown
  };
  Parser parser_;
  bool missing_ok_;
  std::mutex mu_;
  std::map<std::string, Entry> entries_;  // guarded by mu_
};

bool ReportMissing(const std::string& path);  // sets TAVO_ERR_IO, returns false

template <typename T>
std::shared_ptr<const T> SnapshotCache<T>::Get(const std::string& path) {
  if (std::shared_ptr<const void> pinned = internal::PinnedValue(this, path))
    return std::static_pointer_cast<const T>(pinned);
  std::shared_ptr<const T> value = GetFresh(path, internal::ReadEventsNow());
  if (value) internal::PinValue(this, path, value, &RefetchFrom);
  return value;
}

template <typename T>
std::shared_ptr<const T> SnapshotCache<T>::GetAt(const char* abs_path) {
  const unsigned long long root = TavoRootGeneration();
  if (std::shared_ptr<const void> pinned = internal::PinnedAt(this, abs_path, root))
    return std::static_pointer_cast<const T>(pinned);
  const std::string path = TavoRootPath(abs_path);
  if (std::shared_ptr<const void> pinned = internal::PinnedValue(this, path))
    return std::static_pointer_cast<const T>(pinned);
  std::shared_ptr<const T> value = GetFresh(path, internal::ReadEventsNow());
  if (value) internal::PinValue(this, path, value, &RefetchFrom, abs_path, root);
  return value;
}

// The file's bytes a snapshot keeps, when it keeps them in memory of its own
// (see SnapshotCache). Mapped bytes are the file's own pages: a file written
// over in place would always hold "the same bytes" as its mapping.
template <typename T>
auto SnapshotBytes(const T& v, int) -> decltype(&v.Bytes()) {
  return v.Bytes().mapped() ? nullptr : &v.Bytes();
}
template <typename T>
const FileBytes* SnapshotBytes(const T&, long) {
  return nullptr;
}

template <typename T>
std::shared_ptr<const T> SnapshotCache<T>::GetFresh(const std::string& path, bool read_events) {
  // Asked before the file is looked at: a change from now on moves it.
  const unsigned long long epoch =
      tavo::internal::FolderEpoch(tavo::internal::FolderOf(path), read_events, false);
  if (epoch != 0) {
    const unsigned long long generation = SnapshotGeneration(path);
    std::lock_guard<std::mutex> lock(mu_);
    auto it = entries_.find(path);
    if (it != entries_.end() && it->second.epoch == epoch &&
        it->second.key.generation == generation)
      return it->second.value;  // nothing in the folder changed since it was read
  }
  FileKey now;
  if (!StatKey(path, &now)) return nullptr;
  std::shared_ptr<const T> cached;  // same key, but too recent to trust the key alone
  {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = entries_.find(path);
    if (it != entries_.end() && it->second.key == now) {
      if (!it->second.recent) {
        it->second.epoch = epoch;
        return it->second.value;
      }
      cached = it->second.value;
    }
  }
  // A recent file whose bytes are still those of the snapshot keeps it.
  const FileBytes* kept = cached ? SnapshotBytes(*cached, 0) : nullptr;
  FileKey read_key;
  std::shared_ptr<const T> value;
  if (kept && FileHoldsBytes(path, *kept, &read_key) && read_key == now) {
    value = cached;
  } else {
    FileBytes content;
    if (!ReadFileBytes(path, &content, &read_key)) return nullptr;
    if (!read_key.exists && !missing_ok_) {
      ReportMissing(path);
      return nullptr;
    }
    value = parser_(std::move(content));
  }
  const bool recent = RecentlyChanged(read_key);
  std::lock_guard<std::mutex> lock(mu_);
  if (entries_.size() > 64) entries_.clear();  // roots change between tests
  entries_[path] = Entry{read_key, recent, value, epoch};
  return value;
}

template <typename T>
void SnapshotCache<T>::Install(const std::string& path, std::shared_ptr<const T> value) {
  // Asked after the write: its own events are counted.
  const unsigned long long epoch =
      tavo::internal::FolderEpoch(tavo::internal::FolderOf(path), true, false);
  FileKey key;
  if (!StatKey(path, &key) || !key.exists) return;
  std::lock_guard<std::mutex> lock(mu_);
  if (entries_.size() > 64) entries_.clear();
  entries_[path] = Entry{key, RecentlyChanged(key), std::move(value), epoch};
}

}  // namespace acct
}  // namespace tavo

#endif  // TAVO_PLATFORM_SNAPSHOT_H_
