// Prepared temporary files, an intent journal, then renames: one change
// across several account files.
#include "accounts/change/atomic_write.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>

#include "accounts/acct_error.h"
#include "accounts/change/change_journal.h"
#include "accounts/snapshot/file_bytes.h"
#include "accounts/snapshot/snapshot.h"
#include "accounts/store_stats_internal.h"
#include "core/name_caches.h"
#include "tavo/testing.h"

namespace tavo {
namespace acct {
namespace {

bool WriteAll(int fd, std::string_view data) {
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Crash tests set TAVO_TEST_KILL_AT to a point name; the process then dies
// there, as a power cut would stop it.
void MaybeDieAt(const char* point) {
  const char* at = getenv("TAVO_TEST_KILL_AT");
  if (at && strcmp(at, point) == 0) kill(getpid(), SIGKILL);
}

}  // namespace

FileSetWriter::~FileSetWriter() { Discard(); }

void FileSetWriter::Add(const std::string& path, std::string content, unsigned new_mode) {
  items_.push_back(Item{path, std::move(content), std::string(), new_mode, Pieces(), false});
}

void FileSetWriter::Add(const std::string& path, Pieces pieces, unsigned new_mode) {
  items_.push_back(Item{path, std::string(), std::string(), new_mode, std::move(pieces), true});
}

void FileSetWriter::Discard() {
  for (Item& it : items_) {
    if (it.fd >= 0) close(it.fd);
    it.fd = -1;
    if (!it.tmp.empty()) unlink(it.tmp.c_str());
    it.tmp.clear();
  }
}

int FileSetWriter::Recycle(const std::string& spare, Item* item) {
  // Only a plain file of ours, with no other name that would see it change,
  // and not one that this process reads through a mapping.
  struct stat st;
  if (lstat(spare.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1 ||
      FileBytes::MappedHere(st.st_dev, st.st_ino))
    return 0;
  // The spare takes the place of the empty file just made (whose name is
  // unique), so that the name stays one that recovery knows.
  if (rename(spare.c_str(), item->tmp.c_str()) != 0) return 0;
  int fd = open(item->tmp.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW);
  // The empty file lost its name: the write cannot go on (Discard removes
  // the name, now the spare's).
  if (fd < 0) return -1;
  close(item->fd);
  item->fd = fd;
  return 1;
}

bool FileSetWriter::Write(Item* item) {
  const std::string dir = DirOf(item->path);
  const size_t slash = item->path.rfind('/');
  const std::string base = slash == std::string::npos ? item->path : item->path.substr(slash + 1);
  struct stat old;
  const bool existed = stat(item->path.c_str(), &old) == 0;
  std::string tmp = dir + "/." + base + ".tavo.XXXXXX";
  int fd = mkostemp(tmp.data(), O_CLOEXEC);
  if (fd < 0) return ACCT_ERR(TAVO_ERR_IO), false;
  item->tmp = tmp;
  item->fd = fd;
  const int recycled = existed ? Recycle(SparePath(item->path), item) : 0;
  if (recycled < 0) return ACCT_ERR(TAVO_ERR_IO), false;
  fd = item->fd;
  bool ok = existed
                ? fchown(fd, old.st_uid, old.st_gid) == 0 && fchmod(fd, old.st_mode & 07777) == 0
                : fchmod(fd, item->mode) == 0;
  if (!ok) ACCT_ERR(TAVO_ERR_IO);
  if (ok && TAVO_FAULT("file.write")) ok = false;
  if (ok) {
    bool wrote = true;
    if (item->by_pieces) {
      for (std::string_view piece : item->pieces) wrote = wrote && WriteAll(fd, piece);
    } else {
      wrote = WriteAll(fd, item->content);
    }
    if (!wrote) {
      ok = false;
      ACCT_ERR(TAVO_ERR_IO);
    }
  }
  if (ok && recycled > 0) {  // the spare may have been longer
    const off_t end = lseek(fd, 0, SEEK_CUR);
    if (end < 0 || ftruncate(fd, end) != 0) {
      ok = false;
      ACCT_ERR(TAVO_ERR_IO);
    }
  }
  // Only a hint: the fsync of Settle is what makes the file durable.
  if (ok) sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WRITE);
  return ok;
}

bool FileSetWriter::Settle(Item* item) {
  bool ok = TimedFsync(item->fd) == 0;
  if (!ok) ACCT_ERR(TAVO_ERR_IO);
  struct stat st;
  if (ok && fstat(item->fd, &st) == 0) item->ino = st.st_ino;
  if (close(item->fd) != 0 && ok) {
    ok = false;
    ACCT_ERR(TAVO_ERR_IO);
  }
  item->fd = -1;
  return ok;
}

bool FileSetWriter::Commit() {
  if (items_.empty()) return true;
  // 1. Every new content durably in its temporary file; a failure changes
  // nothing. All are written (and their writing back started) before the
  // first is waited for.
  for (int step = 0; step < 2; ++step) {
    for (Item& it : items_) {
      if (!(step == 0 ? Write(&it) : Settle(&it))) {
        Discard();
        CountCommit(false, 0);
        return false;
      }
    }
  }
  // 2. The intent, durably, before the first rename.
  std::vector<JournalEntry> entries;
  for (const Item& it : items_) {
    JournalEntry e;
    struct stat st;
    if (stat(it.path.c_str(), &st) == 0) {
      e.dev = st.st_dev;
      e.ino = st.st_ino;
    }
    e.target = it.path;
    e.tmp = it.tmp;
    entries.push_back(e);
  }
  if (!WriteJournal(entries)) {
    Discard();
    CountCommit(false, 0);
    return false;
  }
  MaybeDieAt("file.decided");
  // 3. The renames; the journal now owns the temporary files.
  bool ok = true;
  size_t renamed = 0;
  std::set<std::string> dirs;
  for (size_t i = 0; i < items_.size() && ok; ++i) {
    if (i > 0) MaybeDieAt("file.between");
    ok = RenameIntoPlace(items_[i].tmp, items_[i].path);
    if (ok) {
      items_[i].tmp.clear();
      ++renamed;
    }
    dirs.insert(DirOf(items_[i].path));
    InvalidateSnapshot(items_[i].path);
  }
  if (ok) {
    // Every file is replaced: the change is whole, whatever the clean-up
    // steps answer (a journal left behind names no temporary file that still
    // exists, and the next writer removes it).
    for (const std::string& d : dirs) SyncDir(d);
    RemoveJournal(/*durable=*/false);
    CountCommit(true, items_.size());
    FlushCaches();
    return true;
  }
  int code = TLIBCErrGet();
  const char* file = TLIBCErrorGetFile();
  int line = TLIBCErrorGetLine();
  // Nothing renamed yet: the change can still be abandoned, once its journal
  // is gone.
  struct stat st;
  if (renamed == 0) {
    // Cleared durably before the temporary files go: a journal that came
    // back after a crash would otherwise complete a change answered as failed.
    if (RemoveJournal(/*durable=*/true)) {
      Discard();
      CountCommit(false, 0);
      TLIBCErrSet(code, file, line);
      return false;
    }
  }
  // Some files were replaced (or the journal could not be withdrawn): the
  // change is completed now from the journal. The answer is whether every
  // target is now the file this writer prepared for it.
  RecoveryReport report;
  RecoverChange("the writer", &report);
  bool whole = true;
  for (Item& it : items_) {
    if (lstat(it.path.c_str(), &st) != 0 || static_cast<unsigned long long>(st.st_ino) != it.ino)
      whole = false;
    it.tmp.clear();  // left to the journal
  }
  CountCommit(whole, whole ? items_.size() : 0);
  FlushCaches();
  if (whole) return true;
  TLIBCErrSet(code, file, line);
  return false;
}

void FileSetWriter::FlushCaches() const {
  std::vector<std::string> paths;
  for (const Item& it : items_) paths.push_back(it.path);
  tavo::internal::FlushNameCaches(paths);
}

std::string FileSetWriter::TakeContent(const std::string& path) {
  for (Item& it : items_)
    if (it.path == path) return it.by_pieces ? Join(it.pieces) : std::move(it.content);
  return std::string();
}

}  // namespace acct
}  // namespace tavo
