// Temp-file, fsync and rename writes of the account files.
#include "atomic_write.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "snapshot.h"
#include "acct_error.h"
#include "tavo/testing.h"

namespace tavo {
namespace acct {
namespace {

bool WriteAll(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

void SyncDir(const std::string& dir) {
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  fsync(fd);
  close(fd);
}

}  // namespace

bool AtomicWrite(const std::string& path, const std::string& content, unsigned new_mode,
                 bool backup) {
  size_t slash = path.rfind('/');
  std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
  std::string base = slash == std::string::npos ? path : path.substr(slash + 1);

  struct stat old;
  bool existed = stat(path.c_str(), &old) == 0;
  std::string tmp = dir + "/." + base + ".tavo.XXXXXX";
  int fd = mkostemp(tmp.data(), O_CLOEXEC);
  if (fd < 0) return ACCT_ERR(TAVO_ERR_IO), false;

  bool ok = true;
  if (existed) {
    ok = fchown(fd, old.st_uid, old.st_gid) == 0 && fchmod(fd, old.st_mode & 07777) == 0;
  } else {
    ok = fchmod(fd, new_mode) == 0;
  }
  if (!ok) ACCT_ERR(TAVO_ERR_IO);
  if (ok && TAVO_FAULT("file.write")) ok = false;
  if (ok && !(WriteAll(fd, content) && fsync(fd) == 0)) {
    ok = false;
    ACCT_ERR(TAVO_ERR_IO);
  }
  if (close(fd) != 0 && ok) {
    ok = false;
    ACCT_ERR(TAVO_ERR_IO);
  }
  if (ok && existed && backup) {
    // The backup is the old file itself, linked under NAME-.
    std::string backup_path = path + "-";
    unlink(backup_path.c_str());
    if (link(path.c_str(), backup_path.c_str()) != 0) {
      ok = false;
      ACCT_ERR(TAVO_ERR_IO);
    }
  }
  if (ok && TAVO_FAULT("file.rename")) ok = false;
  if (ok && rename(tmp.c_str(), path.c_str()) != 0) {
    ok = false;
    ACCT_ERR(TAVO_ERR_IO);
  }
  if (!ok) {
    unlink(tmp.c_str());
    return false;
  }
  SyncDir(dir);
  InvalidateSnapshot(path);
  return true;
}

void FileSetWriter::Add(const std::string& path, const std::string& old_content, bool existed,
                        const std::string& new_content, unsigned new_mode) {
  items_.push_back(Item{path, old_content, new_content, existed, new_mode});
}

bool FileSetWriter::Commit() {
  for (size_t i = 0; i < items_.size(); ++i) {
    if (AtomicWrite(items_[i].path, items_[i].new_content, items_[i].mode)) continue;
    // Put back what was already written; keep the first failure's error state.
    int code = TLIBCErrGet();
    const char* file = TLIBCErrorGetFile();
    int line = TLIBCErrorGetLine();
    for (size_t k = i; k-- > 0;) {
      const Item& it = items_[k];
      if (it.existed) AtomicWrite(it.path, it.old_content, it.mode, false);
      else unlink(it.path.c_str());
    }
    TLIBCErrSet(code, file, line);
    return false;
  }
  return true;
}

}  // namespace acct
}  // namespace tavo
