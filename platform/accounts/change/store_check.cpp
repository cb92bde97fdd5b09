// Recovery and the group/gshadow consistency check.
#include "tavo/store_check.h"

#include <dirent.h>

#include <map>
#include <set>

#include "accounts/change/account_lock.h"
#include "accounts/change/atomic_write.h"
#include "accounts/change/change_journal.h"
#include "accounts/snapshot/account_db.h"
#include "accounts/snapshot/snapshot.h"
#include "tavo/eventlog.h"
#include "tavo/root.h"

namespace tavo {
namespace {

using namespace acct;

// A root-relative name of a host path, for messages.
std::string Shown(const std::string& host_path) {
  const std::string root = TavoRootGet();
  if (!root.empty() && host_path.compare(0, root.size(), root) == 0)
    return host_path.substr(root.size());
  return host_path;
}

void Describe(const RecoveryReport& r, StoreCheckResult* out) {
  for (const std::string& t : r.completed)
    out->repairs.push_back("completed the cut-off replacement of " + Shown(t));
  for (const std::string& t : r.kept)
    out->repairs.push_back("kept " + Shown(t) + ", changed by another program since the crash");
  for (const std::string& t : r.removed)
    out->repairs.push_back("removed leftover temporary file " + Shown(t));
}

bool Lock(AccountLock* lock) {
  return lock->Acquire({TavoRootPath(kGroupPath), TavoRootPath(kGshadowPath)});
}

bool IsForeign(const std::string& line) {
  return line.empty() || line[0] == '#' || line[0] == '+' || line[0] == '-';
}

// Compares gshadow with group; with `fix`, rewrites the gshadow lines.
void CompareShadow(const std::string& group_text, std::vector<std::string>* gshadow_lines, bool fix,
                   std::vector<std::string>* problems) {
  std::map<std::string, std::string> members;  // first line of each group name
  std::vector<std::string> order;
  for (const std::string& line : SplitLines(group_text)) {
    GroupLine g;
    if (!ParseGroupLine(line, &g) || members.count(g.name)) continue;
    members[g.name] = JoinMembers(g.members);
    order.push_back(g.name);
  }
  std::set<std::string> seen;
  std::vector<std::string> kept;
  for (std::string line : *gshadow_lines) {
    if (IsForeign(line)) {
      kept.push_back(line);
      continue;
    }
    std::string name = LineName(line);
    auto it = members.find(name);
    if (it == members.end() || seen.count(name)) {
      problems->push_back("gshadow line '" + name + "' has no group line of its own");
      if (!fix) kept.push_back(line);
      continue;
    }
    seen.insert(name);
    std::string have = GetField(line, 3);
    if (have != it->second) {
      problems->push_back("members of '" + name + "' differ: group '" + it->second +
                          "', gshadow '" + have + "'");
      if (fix && !ReplaceField(&line, 3, it->second)) line = name + ":!::" + it->second;
    }
    kept.push_back(line);
  }
  for (const std::string& name : order) {
    if (seen.count(name)) continue;
    problems->push_back("group '" + name + "' has no gshadow line");
    if (fix) kept.push_back(name + ":!::" + members[name]);
  }
  if (fix) *gshadow_lines = kept;
}

}  // namespace

bool RecoverAccountFiles(const char* who, StoreCheckResult* out) {
  AccountLock lock;
  if (!Lock(&lock)) return false;
  RecoveryReport report;
  bool ok = RecoverChange(who, &report);
  Describe(report, out);
  return ok;
}

bool CheckAccountStore(bool repair, const char* who, StoreCheckResult* out) {
  AccountLock lock;
  if (!Lock(&lock)) return false;
  if (repair) {
    RecoveryReport report;
    bool ok = RecoverChange(who, &report);
    Describe(report, out);
    if (!ok) return false;
  } else {
    std::vector<JournalEntry> entries;
    bool present = false, torn = false;
    if (!ReadJournal(&entries, &present, &torn)) return false;
    if (present) out->findings.push_back("a change was cut off before all its files were replaced");
    if (torn)
      out->findings.push_back(
          "the change journal was cut off while it was written (nothing was "
          "decided; a repair clears it)");
    std::set<std::string> named;
    for (const JournalEntry& e : entries) named.insert(e.tmp);
    for (const char* dir_name : {"/etc", "/etc/tavo"}) {
      std::string dir = TavoRootPath(dir_name);
      if (DIR* d = opendir(dir.c_str())) {
        while (struct dirent* ent = readdir(d)) {
          std::string n = ent->d_name;
          if (n.find(".tavo.") != std::string::npos && n[0] == '.' && !named.count(dir + "/" + n))
            out->findings.push_back("leftover temporary file " + Shown(dir + "/" + n));
        }
        closedir(d);
      }
    }
  }
  std::string group_text, gshadow_text;
  FileKey gkey, skey;
  const std::string gshadow_path = TavoRootPath(kGshadowPath);
  if (!ReadWholeFile(TavoRootPath(kGroupPath), &group_text, &gkey) ||
      !ReadWholeFile(gshadow_path, &gshadow_text, &skey))
    return false;
  if (!skey.exists) return true;
  std::vector<std::string> lines = SplitLines(gshadow_text);
  std::vector<std::string> problems;
  CompareShadow(group_text, &lines, repair, &problems);
  if (!repair || problems.empty()) {
    out->findings.insert(out->findings.end(), problems.begin(), problems.end());
    return true;
  }
  FileSetWriter writer;
  writer.Add(gshadow_path, JoinLines(lines), 0640);
  if (!writer.Commit()) return false;
  for (const std::string& p : problems) out->repairs.push_back("repaired: " + p);
  std::string summary = std::to_string(problems.size()) + " disagreement(s) of gshadow with group";
  TAVOLogSet1(2, 2, 0x11800701, who, summary.c_str(), "", "");
  return true;
}

}  // namespace tavo
