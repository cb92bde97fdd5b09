// The intent journal and the recovery of a half-done change.
#include "accounts/change/change_journal.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <set>

#include "accounts/acct_error.h"
#include "accounts/snapshot/snapshot.h"
#include "accounts/store_stats_internal.h"
#include "tavo/eventlog.h"
#include "tavo/root.h"
#include "tavo/testing.h"

namespace tavo {
namespace acct {
namespace {

// The journal's first line: "tavo-change 0" when no change is under way;
// "tavo-change 2 LEN HASH" before LEN bytes of entries whose FNV-1a hash is
// HASH (hex); "tavo-change 1" (entries to the end) from earlier versions.
const char kHeaderPrefix[] = "tavo-change ";
const char kClear[] = "tavo-change 0\n";
// The size the journal is made with: one block, overwritten in place.
constexpr size_t kJournalBytes = 4096;

// The account files whose stray temporary files recovery removes.
const char* const kWrittenFiles[] = {"/etc/group", "/etc/gshadow", "/etc/tavo/group_desc"};

uint64_t Fnv1a(const char* p, size_t n) {
  uint64_t h = 1469598103934665603ULL;
  for (size_t i = 0; i < n; ++i) h = (h ^ static_cast<unsigned char>(p[i])) * 1099511628211ULL;
  return h;
}

bool WriteAt(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = pwrite(fd, data.data() + done, data.size() - done, static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Opens the journal for writing. The file is kept between changes and
// overwritten in place: deciding a change then costs one data sync of one
// block, not a new file's sync, a rename and a folder sync. The first change
// on a root makes the file durably (a cleared block, fsync, folder fsync).
int OpenJournal() {
  const std::string path = JournalPath();
  for (int attempt = 0; attempt < 2; ++attempt) {
    int fd = open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    if (fd >= 0) {
      struct stat st;
      if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) return fd;
      close(fd);
      return -1;
    }
    if (errno != ENOENT) return -1;
    fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
      if (errno == EEXIST) continue;
      return -1;
    }
    std::string block(kClear);
    block.resize(kJournalBytes, '\n');
    if (!WriteAt(fd, block) || TimedFsync(fd) != 0 || !SyncDir(DirOf(path))) {
      close(fd);
      unlink(path.c_str());
      return -1;
    }
    return fd;
  }
  return -1;
}

// Parses "DEV INO TARGET\tTEMP" lines.
void ParseEntries(const std::string& text, std::vector<JournalEntry>* entries) {
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) break;
    std::string line = text.substr(pos, end - pos);
    pos = end + 1;
    JournalEntry e;
    size_t tab = line.find('\t');
    char target[4096];
    if (tab == std::string::npos ||
        sscanf(line.c_str(), "%llu %llu %4095[^\t]", &e.dev, &e.ino, target) != 3)
      continue;
    e.target = target;
    e.tmp = line.substr(tab + 1);
    entries->push_back(e);
  }
}

bool Exists(const std::string& path, struct stat* st) { return lstat(path.c_str(), st) == 0; }

}  // namespace

std::string DirOf(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool SyncDir(const std::string& dir) {
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return ACCT_ERR(TAVO_ERR_IO), false;
  bool ok = TimedFsync(fd) == 0;
  close(fd);
  if (!ok) ACCT_ERR(TAVO_ERR_IO);
  return ok;
}

std::string JournalPath() { return TavoRootPath("/etc/.tavo-change"); }

bool WriteJournal(const std::vector<JournalEntry>& entries) {
  std::string body;
  for (const JournalEntry& e : entries)
    body +=
        std::to_string(e.dev) + " " + std::to_string(e.ino) + " " + e.target + "\t" + e.tmp + "\n";
  char header[64];
  snprintf(header, sizeof header, "%s2 %zu %016llx\n", kHeaderPrefix, body.size(),
           static_cast<unsigned long long>(Fnv1a(body.data(), body.size())));
  int fd = OpenJournal();
  if (fd < 0) return ACCT_ERR(TAVO_ERR_IO), false;
  bool ok = WriteAt(fd, header + body) && TimedFdatasync(fd) == 0;
  ok = close(fd) == 0 && ok;
  if (!ok) ACCT_ERR(TAVO_ERR_IO);
  return ok;
}

bool RemoveJournal(bool durable) {
  int fd = open(JournalPath().c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return errno == ENOENT ? true : (ACCT_ERR(TAVO_ERR_IO), false);
  bool ok = WriteAt(fd, kClear) && (!durable || TimedFdatasync(fd) == 0);
  ok = close(fd) == 0 && ok;
  if (!ok) ACCT_ERR(TAVO_ERR_IO);
  return ok;
}

bool ReadJournal(std::vector<JournalEntry>* entries, bool* present, bool* torn_out) {
  entries->clear();
  *present = false;
  bool ignored = false;
  bool* torn = torn_out ? torn_out : &ignored;
  *torn = false;
  std::string text;
  FileKey key;
  if (!ReadWholeFile(JournalPath(), &text, &key)) return false;
  const size_t eol = text.find('\n');
  const size_t plen = sizeof kHeaderPrefix - 1;
  if (!key.exists || eol == std::string::npos || text.compare(0, plen, kHeaderPrefix) != 0)
    return true;  // none, or not a journal this version writes
  const std::string header = text.substr(plen, eol - plen);
  if (header == "1") {  // written by an earlier version: entries to the end
    *present = true;
    ParseEntries(text.substr(eol + 1), entries);
    return true;
  }
  size_t len = 0;
  unsigned long long hash = 0;
  char extra = 0;
  if (header == "0") return true;
  // Cut off while written: nothing was decided, but the journal is to be cleared.
  if (sscanf(header.c_str(), "2 %zu %llx%c", &len, &hash, &extra) != 2 ||
      len > text.size() - eol - 1)
    return *torn = true, true;
  const std::string body = text.substr(eol + 1, len);
  if (Fnv1a(body.data(), body.size()) != hash) return *torn = true, true;
  *present = true;
  ParseEntries(body, entries);
  return true;
}

std::string SparePath(const std::string& target) {
  const std::string dir = DirOf(target);
  return dir + "/." + target.substr(dir.size() + 1) + ".tavo-spare";
}

bool RenameIntoPlace(const std::string& tmp, const std::string& target) {
  struct stat st;
  if (Exists(target, &st)) {
    // The backup is the old file itself, linked under NAME-; the backup
    // before it becomes the spare (or goes, when that cannot be done).
    std::string backup = target + "-";
    // (rename leaves both names when they are links of one file already.)
    struct stat left;
    if (rename(backup.c_str(), SparePath(target).c_str()) != 0 || lstat(backup.c_str(), &left) == 0)
      unlink(backup.c_str());
    if (link(target.c_str(), backup.c_str()) != 0) return ACCT_ERR(TAVO_ERR_IO), false;
  }
  if (TAVO_FAULT("file.rename")) return false;
  if (rename(tmp.c_str(), target.c_str()) != 0) return ACCT_ERR(TAVO_ERR_IO), false;
  return true;
}

bool RecoverChange(const char* who, RecoveryReport* report) {
  std::vector<JournalEntry> entries;
  bool present = false, torn = false;
  if (!ReadJournal(&entries, &present, &torn)) return false;
  report->journal_found = present;
  std::set<std::string> named;
  std::set<std::string> dirs;
  bool ok = true;
  for (const JournalEntry& e : entries) named.insert(e.tmp);
  for (const JournalEntry& e : entries) {
    struct stat tmp_st, target_st;
    if (!Exists(e.tmp, &tmp_st)) continue;  // renamed already
    bool target_there = Exists(e.target, &target_st);
    bool same = e.ino == 0
                    ? !target_there
                    : target_there && static_cast<unsigned long long>(target_st.st_dev) == e.dev &&
                          static_cast<unsigned long long>(target_st.st_ino) == e.ino;
    if (same) {
      // In order, and no further after a failure: the files stay as a
      // prefix of the change, which the next try continues.
      if (!RenameIntoPlace(e.tmp, e.target)) {
        ok = false;
        break;
      }
      report->completed.push_back(e.target);
    } else {
      unlink(e.tmp.c_str());
      report->kept.push_back(e.target);
    }
    dirs.insert(DirOf(e.target));
    InvalidateSnapshot(e.target);
  }
  // Temporary files no journal names belong to writers that died before
  // deciding their change.
  for (const char* file : kWrittenFiles) {
    std::string path = TavoRootPath(file);
    std::string dir = DirOf(path);
    std::string prefix = "." + path.substr(dir.size() + 1) + ".tavo.";
    DIR* d = opendir(dir.c_str());
    if (!d) continue;
    while (struct dirent* ent = readdir(d)) {
      std::string name = ent->d_name;
      if (name.compare(0, prefix.size(), prefix) != 0) continue;
      std::string full = dir + "/" + name;
      if (named.count(full)) continue;
      if (unlink(full.c_str()) == 0) report->removed.push_back(full);
    }
    closedir(d);
  }
  if (!ok) return false;
  for (const std::string& d : dirs) ok = SyncDir(d) && ok;
  if (!ok || ((present || torn) && !RemoveJournal())) return false;
  if (!report->completed.empty()) {
    std::string files;
    const std::string root = TavoRootGet();
    for (std::string t : report->completed) {
      if (!root.empty() && t.compare(0, root.size(), root) == 0) t = t.substr(root.size());
      files += (files.empty() ? "" : ", ") + t;
    }
    TAVOLogSet1(2, 2, 0x11800700, who, files.c_str(), "", "");
  }
  return true;
}

}  // namespace acct
}  // namespace tavo
