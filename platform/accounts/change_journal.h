// The intent journal of a change across several account files, and recovery.
//
// ROOT/etc/.tavo-change names the files of one decided change: for each, the
// target, the prepared temporary file that holds its new content, and the
// identity (device, inode) of the file it replaces (0 0 for a new file). It
// is written durably before the first rename and removed after the last.
// Format: a first line "tavo-change 1", then one line per file:
// "DEV INO TARGET\tTEMP" with absolute host paths.
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
// Writes the journal durably (temp, fsync, rename, folder fsync).
bool WriteJournal(const std::vector<JournalEntry>& entries);
// Removes the journal, and fsyncs its folder when `durable`. A change whose
// files are all in place and synced need not wait for that: a journal that
// comes back after a crash names no temporary file that still exists, and
// the next writer removes it (the next journal written replaces it anyway).
bool RemoveJournal(bool durable = true);
// Reads the journal; true with an empty list when there is none.
bool ReadJournal(std::vector<JournalEntry>* entries, bool* present);

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
// exists. Fault point "file.rename".
bool RenameIntoPlace(const std::string& tmp, const std::string& target);
// fsyncs a folder.
bool SyncDir(const std::string& dir);
std::string DirOf(const std::string& path);

}  // namespace acct
}  // namespace tavo

#endif  // TAVO_PLATFORM_CHANGE_JOURNAL_H_
