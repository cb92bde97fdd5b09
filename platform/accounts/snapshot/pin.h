// Pins: one call's view of the account files (the platform's side of
// tavo/read_scope.h).
//
// While a SnapshotPin (or a ReadScope) lives, every Get on its thread returns
// the snapshot the first Get of that file returned in the pin's lifetime,
// without looking at the file again: one call (an enumeration and the lookups
// its callback makes) then sees the files at one point in time and stats each
// file once. The view ends at a write of this thread (InvalidateSnapshot) and
// when this thread takes a lock (LockTaken): what was read before the wait
// may have been changed by whoever held the lock. Pins nest.
//
// A pin also makes the read set of a reusable answer: the files it looked at
// (also those read before a lock), the handler locks taken, and the marks
// that rule reuse out (a write, an exclusive lock, MarkNotReusable).
//
// Thread-safety: a pin belongs to the thread that made it.
#ifndef TAVO_PLATFORM_PIN_H_
#define TAVO_PLATFORM_PIN_H_

#include <memory>
#include <string>

namespace tavo {
namespace acct {

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
// This thread has just taken a lock that orders it after other writers: a
// handler lock or lock file (`lock_path`, its platform path; `exclusive` as
// taken), or the account locks (`lock_path` null). What the pin holds was
// read before the wait, so it is no longer handed out: every later Get
// looks at the files as they are now. The files stay in the pin's read set,
// and the lock is noted in it (read_scope.h).
void LockTaken(const char* lock_path, bool exclusive);
// The answer being made on this thread rests on something that no snapshot
// tracks (a file read directly, a write of its own, a program run): the pin
// gives no read set, whatever the caller claims, and the thread's wait notice
// is told (tavo/wait_notice.h).
void MarkNotReusable();
// As MarkNotReusable for an answer that depends on the clock, which is read
// at once: no wait is noticed.
void MarkClockRead();
// This thread wrote a file: the pin drops what it holds and gives no read set.
void AfterWrite();
}  // namespace internal

}  // namespace acct
}  // namespace tavo

#endif  // TAVO_PLATFORM_PIN_H_
