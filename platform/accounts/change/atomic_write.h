// Durable replacement of an account file, and of several files as one change.
//
// FileSetWriter replaces several files as one change, all or nothing:
//   1. prepare: each new content goes to a temporary file in the target's
//      folder (".NAME.tavo.XXXXXX", never NAME+, NAME-, NAME.lock or
//      NAME.<pid>) with the old file's owner and mode (or `new_mode` and root
//      for a new file); when the file has a spare from an earlier change, the
//      spare is renamed to that name and written over instead (see
//      SparePath). The writing back of every file is started before the
//      first is waited for, so that the disk writes them together; then each
//      is fsynced. A failure here removes every temporary file: nothing
//      changed, and Commit answers false.
//   2. intent: a small journal (see change_journal.h) naming each target, its
//      temporary file and the identity of the file it replaces is written in
//      place and synced. From here on the change is decided and will be
//      completed.
//   3. apply: for each file, the old file is kept as the NAME- backup (a hard
//      link) and the temporary file is renamed over NAME; then the folders are
//      fsynced and the journal cleared.
// When the first rename fails, the change is abandoned (journal cleared and
// temporary files removed): false, nothing changed. When a later rename fails, the
// writer completes the change at once through the journal (RecoverChange).
// Once every file is in place the answer is true, whatever the clean-up steps
// (folder fsync, journal clearing) answer. Only when the completion fails too
// does Commit answer false with the change half done; the journal then stays
// behind, and the next writer, `tavo serve` at start or `tavo check --repair`
// completes it.
//
// Callers hold the account locks (account_lock.h). Fault points: "file.write"
// fails the write step of step 1 (as a full disk), "file.rename" a rename of
// step 3; with TAVO_TEST_KILL_AT=file.between in the environment the process
// kills itself between two renames (crash tests). Once files were replaced,
// the system's name caches are told (name_caches.h), with the locks still held.
// Errors: false with the error state set (TAVO_ERR_IO, or the injected code).
#ifndef TAVO_PLATFORM_ATOMIC_WRITE_H_
#define TAVO_PLATFORM_ATOMIC_WRITE_H_

#include <string>
#include <vector>

#include "accounts/change/line_splice.h"

namespace tavo {
namespace acct {

class FileSetWriter {
 public:
  FileSetWriter() = default;
  ~FileSetWriter();  // removes temporary files of a change never committed
  FileSetWriter(const FileSetWriter&) = delete;
  FileSetWriter& operator=(const FileSetWriter&) = delete;

  // Queues `content` as the new content of `path`.
  void Add(const std::string& path, std::string content, unsigned new_mode = 0644);
  // Queues the bytes of `pieces`, written as they are without being joined
  // first; what they view must stay unchanged until the writer's last use.
  void Add(const std::string& path, Pieces pieces, unsigned new_mode = 0644);
  bool empty() const { return items_.empty(); }
  bool Commit();
  // The content queued for `path`, moved out (or pieces joined; "" when none
  // was queued); after a Commit that answered true, the bytes the file now
  // holds.
  std::string TakeContent(const std::string& path);

 private:
  struct Item {
    std::string path, content, tmp;
    unsigned mode;
    Pieces pieces;  // the content, when queued as pieces
    bool by_pieces = false;
    unsigned long long ino = 0;  // of the prepared temporary file
    int fd = -1;                 // the temporary file, between Write and Settle
  };
  // Creates and writes the temporary file and starts writing it back; the
  // file stays open for Settle.
  bool Write(Item* item);
  // Puts the spare (see SparePath) in place of the item's new temporary file
  // and opens it for writing over: 1 done, 0 no usable spare (the new file
  // stays), -1 failed half way (the item cannot be written).
  int Recycle(const std::string& spare, Item* item);
  // Tells the system's name caches that the files changed (name_caches.h).
  void FlushCaches() const;
  // Waits until the temporary file is durable, and closes it.
  bool Settle(Item* item);
  void Discard();
  std::vector<Item> items_;
};

}  // namespace acct
}  // namespace tavo

#endif  // TAVO_PLATFORM_ATOMIC_WRITE_H_
