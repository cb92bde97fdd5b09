// The intent journal of a change across several account files, and recovery.
//
// ROOT/etc/.tavo-change names the files of one decided change: for each, the
// target, the prepared temporary file that holds its new content, and the
// identity (device, inode) of the file it replaces (0 0 for a new file). The
// file is made once and then overwritten in place: a change is decided when
// its entries are written there and synced (one data sync), and done when
// the file is cleared again. Format: a first line "tavo-change 2 LEN HASH",
// then LEN bytes of entries "DEV INO TARGET\tTEMP" (absolute host paths) whose
// 64-bit FNV-1a hash is HASH in hex; bytes after them are ignored. A first
// line "tavo-change 0", or a journal whose entries do not match their hash
// (cut off while written), names no change. Journals of the earlier format
// ("tavo-change 1", entries to the end of the file) are still read.
//
// RecoverChange, run under the account locks, completes a change found in the
// journal: each temporary file still there is renamed over its target (the old
// file kept as NAME-), provided the target is still the file the change was
// prepared against; a target that another program replaced since is newer
// than the change and is kept (the temporary file is removed). It also
// removes stray temporary files of the account files that no journal names
// (left by a writer that died before its journal was written). A completed
// change is reported in the event log.
//
// Thread-safety: callers hold the account locks.
// Errors: false with the error state set (TAVO_ERR_IO) when the journal cannot
// be completed or removed; it then stays for the next try.
#ifndef TAVO_PLATFORM_CHANGE_JOURNAL_H_
#define TAVO_PLATFORM_CHANGE_JOURNAL_H_

#include <string>
#include <vector>

namespace tavo {
namespace acct {

struct JournalEntry {
  unsigned long long dev = 0, ino = 0;  // identity of the file replaced
  std::string target, tmp;
};

// ROOT/etc/.tavo-change.
std::string JournalPath();
// Writes the journal durably (in place, then fdatasync).
bool WriteJournal(const std::vector<JournalEntry>& entries);
// Clears the journal, and syncs it when `durable`. A change whose files are
// all in place and synced need not wait for that: a journal that comes back
// after a crash names no temporary file that still exists.
bool RemoveJournal(bool durable = true);
// Reads the journal; true with an empty list and `present` false when it
// names no change. `torn` (optional): a journal cut off while it was written,
// which names no change but is still to be cleared.
bool ReadJournal(std::vector<JournalEntry>* entries, bool* present, bool* torn = nullptr);

// What recovery did, for reports.
struct RecoveryReport {
  bool journal_found = false;
  std::vector<std::string> completed;  // targets renamed into place
  std::vector<std::string> kept;       // targets replaced by another program since
  std::vector<std::string> removed;    // stray temporary files removed
};
// `who` names the recovering party in the event-log entry ("tavo check", ...).
bool RecoverChange(const char* who, RecoveryReport* report);

// Renames `tmp` over `target`, keeping the old target as `target-` when it
// exists. The backup it replaces is not deleted but kept as the spare of
// `target` (SparePath), whose blocks the next change writes over. Fault point
// "file.rename".
bool RenameIntoPlace(const std::string& tmp, const std::string& target);
// ".NAME.tavo-spare" beside `target`: the backup before the current one, kept
// only to be reused. Deleting a file of several megabytes takes milliseconds
// (its blocks are freed, and discarded on disks mounted with "discard"), and
// a fresh file's blocks must be allocated again; writing a change over the
// spare does neither. Readable by whoever may read the backup (it was one).
std::string SparePath(const std::string& target);
// fsyncs a folder.
bool SyncDir(const std::string& dir);
std::string DirOf(const std::string& path);

}  // namespace acct
}  // namespace tavo

#endif  // TAVO_PLATFORM_CHANGE_JOURNAL_H_
