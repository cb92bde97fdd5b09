// Durable replacement of an account file, and of several files as one change.
//
// AtomicWrite(path, content) writes `content` to a new temporary file in the
// same folder (named ".NAME.tavo.XXXXXX", never NAME+, NAME-, NAME.lock or
// NAME.<pid>), gives it the old file's owner and mode (or `new_mode` and root
// for a new file), fsyncs it, keeps the old file as the NAME- backup, renames
// the temporary file over NAME and fsyncs the folder. Readers always see
// either the whole old or the whole new file. On failure the temporary file is
// removed and NAME is left as it was.
//
// FileSetWriter applies several such writes in order; when one fails, the
// files already written are put back to their old content, so the change is
// all or nothing as far as the file system allows. Their NAME- backups then
// hold the old content too.
//
// `backup` false leaves NAME- alone: a rollback puts the old content back
// without making the content that failed to commit the backup.
//
// Callers hold the account locks (account_lock.h). Fault points: "file.write"
// fails the write step (as a full disk), "file.rename" the rename step.
// Errors: false with the error state set (TAVO_ERR_IO, or the injected code).
#ifndef TAVO_PLATFORM_ATOMIC_WRITE_H_
#define TAVO_PLATFORM_ATOMIC_WRITE_H_

#include <string>
#include <vector>

namespace tavo {
namespace acct {

bool AtomicWrite(const std::string& path, const std::string& content, unsigned new_mode = 0644,
                 bool backup = true);

class FileSetWriter {
 public:
  // `existed`: whether the file was there before (a rollback of a new file
  // removes it).
  void Add(const std::string& path, const std::string& old_content, bool existed,
           const std::string& new_content, unsigned new_mode = 0644);
  bool empty() const { return items_.empty(); }
  bool Commit();

 private:
  struct Item {
    std::string path, old_content, new_content;
    bool existed;
    unsigned mode;
  };
  std::vector<Item> items_;
};

}  // namespace acct
}  // namespace tavo

#endif  // TAVO_PLATFORM_ATOMIC_WRITE_H_
