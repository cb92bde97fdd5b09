// Change counts of folders, from the kernel's file events (inotify).
//
// A snapshot cache (or the lock files' pool) asks, before it looks at a file, for the change count
// of the file's folder. When the count is the one it saw when it last read the file, nothing in the
// folder was created, removed, renamed, written to or had its attributes changed since, and the
// snapshot is still the file: no stat is needed. The events of a change are queued by the kernel
// before the writer's system call returns, and FolderEpoch reads the queue first, so a change that
// completed before the call is always counted, also one that leaves size and times as they were.
//
// The count also moves when the watch can no longer tell: the folder itself
// was moved or removed, or the kernel's event queue overflowed. 0 means
// "unknown" (no inotify, the per-user watch limit reached, or more folders
// than kMaxFolders): the caller must then look at the file itself. Counts
// are never reused, so a count kept from an earlier watch never matches.
//
// Not seen: writes through a shared memory mapping (no account tool writes
// that way), and changes on another machine to a network file system. A
// folder above the watched one that is renamed leaves the watch on the old
// folder; the account folders of a root are not moved while it is served.
//
// Thread-safety: any thread (one lock; the queue is read under it).
// Errors: none reported; failures give 0.
#ifndef TAVO_PLATFORM_FOLDER_WATCH_H_
#define TAVO_PLATFORM_FOLDER_WATCH_H_

#include <string_view>

namespace tavo {
namespace internal {

// Folders watched at once, at most; past it the watches start over.
constexpr int kMaxWatchedFolders = 64;

// The change count of the folder `dir` (a host path), after reading the
// pending events (unless `read_events` is false: a caller that read them
// moments ago, within one call, gets the counts as of that read); 0 when
// unknown (see above). Without `lock_files`, events on lock and journal files
// (IsLockOrJournalName) do not move the count: a writer that takes and
// releases the account locks around its change then leaves the folder's count
// as it was when it kept the snapshots of the files it wrote. Such a count
// must not vouch for a file with one of those names (nor for a file written
// in place through a second hard link under one: no account tool does that;
// their lock candidates NAME.PID are files of their own).
unsigned long long FolderEpoch(std::string_view dir, bool read_events = true,
                               bool lock_files = true);

// From now on FolderEpoch answers 0 (unknown) and holds no watch: for a
// process that reads each file once or twice and exits, setting up the
// watches costs more than the stat(2) calls they would save.
void ForgoFolderWatch();

// Names of lock and journal files: NAME.lock, the account tools' lock
// candidates NAME.PID, this platform's ".NAME.tavolock.*" candidates and its
// change journal ".tavo-change".
bool IsLockOrJournalName(std::string_view name);

// The folder part of a host path ("/r/etc/group" -> "/r/etc").
inline std::string_view FolderOf(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view(".")
         : slash == 0                    ? std::string_view("/")
                                         : path.substr(0, slash);
}

}  // namespace internal
}  // namespace tavo

#endif  // TAVO_PLATFORM_FOLDER_WATCH_H_
