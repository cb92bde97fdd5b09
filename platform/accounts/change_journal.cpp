// The intent journal and the recovery of a half-done change.
#include "change_journal.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <set>

#include "acct_error.h"
#include "snapshot.h"
#include "store_stats_internal.h"
#include "tavo/eventlog.h"
#include "tavo/root.h"
#include "tavo/testing.h"

namespace tavo {
namespace acct {
namespace {

const char kJournalHeader[] = "tavo-change 1";

// The account files whose stray temporary files recovery removes.
const char* const kWrittenFiles[] = {"/etc/group", "/etc/gshadow", "/etc/tavo/group_desc"};

bool WriteFileDurably(const std::string& path, const std::string& content) {
  std::string tmp = path + ".XXXXXX";
  int fd = mkostemp(tmp.data(), O_CLOEXEC);
  if (fd < 0) return ACCT_ERR(TAVO_ERR_IO), false;
  size_t done = 0;
  bool ok = fchmod(fd, 0600) == 0;
  while (ok && done < content.size()) {
    ssize_t n = write(fd, content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) ok = false;
    else done += static_cast<size_t>(n);
  }
  ok = ok && TimedFsync(fd) == 0;
  ok = close(fd) == 0 && ok;
  ok = ok && rename(tmp.c_str(), path.c_str()) == 0;
  if (!ok) {
    unlink(tmp.c_str());
    return ACCT_ERR(TAVO_ERR_IO), false;
  }
  return SyncDir(DirOf(path));
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
  std::string text = std::string(kJournalHeader) + "\n";
  for (const JournalEntry& e : entries)
    text += std::to_string(e.dev) + " " + std::to_string(e.ino) + " " + e.target + "\t" + e.tmp +
            "\n";
  return WriteFileDurably(JournalPath(), text);
}

bool RemoveJournal(bool durable) {
  if (unlink(JournalPath().c_str()) != 0 && errno != ENOENT) return ACCT_ERR(TAVO_ERR_IO), false;
  return !durable || SyncDir(DirOf(JournalPath()));
}

bool ReadJournal(std::vector<JournalEntry>* entries, bool* present) {
  entries->clear();
  std::string text;
  FileKey key;
  if (!ReadWholeFile(JournalPath(), &text, &key)) return false;
  *present = key.exists;
  size_t pos = text.find('\n');
  if (!key.exists || pos == std::string::npos || text.compare(0, pos, kJournalHeader) != 0)
    return true;  // none, or cut off before its rename: nothing was decided
  while (++pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) break;
    std::string line = text.substr(pos, end - pos);
    pos = end;
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
  return true;
}

bool RenameIntoPlace(const std::string& tmp, const std::string& target) {
  struct stat st;
  if (Exists(target, &st)) {
    // The backup is the old file itself, linked under NAME-.
    std::string backup = target + "-";
    unlink(backup.c_str());
    if (link(target.c_str(), backup.c_str()) != 0) return ACCT_ERR(TAVO_ERR_IO), false;
  }
  if (TAVO_FAULT("file.rename")) return false;
  if (rename(tmp.c_str(), target.c_str()) != 0) return ACCT_ERR(TAVO_ERR_IO), false;
  return true;
}

bool RecoverChange(const char* who, RecoveryReport* report) {
  std::vector<JournalEntry> entries;
  bool present = false;
  if (!ReadJournal(&entries, &present)) return false;
  report->journal_found = present;
  std::set<std::string> named;
  std::set<std::string> dirs;
  bool ok = true;
  for (const JournalEntry& e : entries) named.insert(e.tmp);
  for (const JournalEntry& e : entries) {
    struct stat tmp_st, target_st;
    if (!Exists(e.tmp, &tmp_st)) continue;  // renamed already
    bool target_there = Exists(e.target, &target_st);
    bool same = e.ino == 0 ? !target_there
                           : target_there && static_cast<unsigned long long>(target_st.st_dev) ==
                                                 e.dev &&
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
  if (!ok || (present && !RemoveJournal())) return false;
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
