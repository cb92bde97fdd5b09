// Cached, immutable snapshots of account files: each file is parsed once per
// change, however many lookups follow.
//
// When a snapshot is fresh. SnapshotCache<T>::Get(path) returns the parsed
// form of the file as it is now; the first of these rules that applies
// decides:
//   1. Under a pin (pin.h), the snapshot the pin already holds for the file.
//   2. While the change count of the file's folder (folder_watch.h) is the one
//      seen before the file was last read, and no writer of this process
//      invalidated it since, the kept snapshot, without a look at the file.
//   3. While the file's key (file_key.h) is the one it was read with, the
//      kept snapshot; unless it was read within a clock tick or so of its
//      last change, as another process may rewrite a file in place at the
//      same size within one tick of the file system's clock and leave every
//      part of the key as it was.
//   4. Such a recent snapshot is kept when the file still holds its very
//      bytes (snapshots that keep their bytes, as T::Bytes(), only).
//   5. Otherwise the file is read and parsed again.
// A writer under the account locks reads with GetUnpinned and, after its
// write, installs the snapshot of the bytes it wrote (Install) or
// invalidates the file (InvalidateSnapshot).
//
// Ownership: a returned snapshot stays valid for as long as the caller holds
// the pointer, also after the file changes.
// Thread-safety: Get, GetAt, GetUnpinned and Install may be called from any
// thread; the snapshots themselves are immutable.
// Errors: Get returns null with the error state set (TAVO_ERR_IO, or
// TAVO_ERR_NOMEM); a missing file is an empty file when the cache was built
// with `missing_ok`.
#ifndef TAVO_PLATFORM_SNAPSHOT_H_
#define TAVO_PLATFORM_SNAPSHOT_H_

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "accounts/snapshot/file_bytes.h"
#include "accounts/snapshot/file_key.h"
#include "accounts/snapshot/pin.h"
#include "core/folder_watch.h"
#include "tavo/root.h"
#include "tavo/wait_notice.h"

namespace tavo {
namespace acct {

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
    tavo::NoticeWait();  // a read from disk and a parse
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
