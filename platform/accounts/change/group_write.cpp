// Writers of the group files: one group's change, and deletions.
//
// Both take the files as they are after taking the account locks (and
// completing a change a crash cut off), from their snapshots when unchanged,
// and replace or remove only the lines of their own change in the files'
// bytes, so concurrent changes by other writers (other threads, other
// processes, the system's account tools) are kept and every other byte stays.
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <utility>

#include "accounts/change/account_lock.h"
#include "accounts/change/atomic_write.h"
#include "accounts/change/change_journal.h"
#include "accounts/change/line_splice.h"
#include "accounts/group_internal.h"
#include "accounts/snapshot/name_rule.h"
#include "accounts/snapshot/names.h"
#include "accounts/snapshot/snapshot.h"
#include "tavo/conf.h"
#include "tavo/error.h"
#include "tavo/one_shot.h"
#include "tavo/root.h"

namespace tavo {
namespace acct {
namespace {

// TAVO_ERR_NONE, or TAVO_ERR_NO_USER when a change of the members of `group`
// from `before` to `after` takes the last valid administrator away. The
// state of the accounts is read as it is now, under the account locks.
int CheckAdministratorsLeft(const std::string& group, const std::vector<std::string>& before,
                            const std::vector<std::string>& after) {
  if (FoldCase(group) != "administrators") return TAVO_ERR_NONE;
  const int now = CountValidAdmins(after);
  if (now < 0) return TLIBCErrGet();
  if (now > 0) return TAVO_ERR_NONE;
  const int was = CountValidAdmins(before);
  if (was < 0) return TLIBCErrGet();
  return was > 0 ? TAVO_ERR_NO_USER : TAVO_ERR_NONE;
}

// Takes the account locks and completes a change a crash cut off.
bool LockAndRecover(AccountLock* lock) {
  if (!lock->Acquire({TavoRootPath(kGroupPath), TavoRootPath(kGshadowPath)})) return false;
  RecoveryReport report;
  return RecoverChange("the next writer", &report);
}

// How change `c` leaves the group's line in gshadow's bytes `text`: the line
// named c.orig_name, renamed to c.new_name and its members changed by
// c.added and c.removed, replaces the old one (`found`); when there is none
// or it does not parse, NAME:!::MEMBERS with the group's `members` is added
// or put in its place. `unchanged` when the bytes stay as they are.
struct GshadowEdit {
  bool found = false;
  LineSpan span;
  std::string line;
  bool unchanged = false;
};

GshadowEdit EditGshadow(std::string_view text, const GroupChange& c,
                        const std::vector<std::string>& members) {
  GshadowEdit e;
  const std::string fresh = c.new_name + ":!::" + JoinMembers(members);
  e.found = FindNamedLine(text, c.orig_name, 0, &e.span);
  if (!e.found) {
    e.line = fresh;
    return e;
  }
  e.line.assign(text.substr(e.span.begin, e.span.end - e.span.begin));
  const std::string before = e.line;
  std::vector<std::string> gm = SplitMembers(GetField(e.line, 3));
  ApplyMembers(&gm, c.added, c.removed);
  if (!ReplaceField(&e.line, 0, c.new_name) || !ReplaceField(&e.line, 3, JoinMembers(gm)))
    e.line = fresh;
  e.unchanged = e.line == before;
  return e;
}

// The bytes of `text` with edit `e` made (views into `text` and e.line).
Pieces EditPieces(std::string_view text, const GshadowEdit& e) {
  return e.found ? SplicePieces(text, e.span, e.line) : AppendPieces(text, e.line);
}

// gshadow's bytes `text` with the group's line as change `c` leaves it (see
// EditGshadow), and a line left for a gone group of the new name dropped.
// Every other byte is kept; "" when nothing changes.
std::string ChangedGshadow(std::string_view text, const GroupChange& c,
                           const std::vector<std::string>& members) {
  std::string dropped;
  bool any_dropped = false;
  if (c.new_name != c.orig_name) {
    dropped.assign(text);
    any_dropped = DropNamedLines(&dropped, c.new_name, 1);
  }
  const std::string_view from = any_dropped ? std::string_view(dropped) : text;
  const GshadowEdit e = EditGshadow(from, c, members);
  if (e.unchanged) return any_dropped ? dropped : std::string();
  return Join(EditPieces(from, e));
}

// A change of members alone: the group's line and its gshadow line are
// replaced in the files' bytes; nothing else is split, parsed or rebuilt.
// etc/group comes from its snapshot, which is reused when the file is still
// the one it was made from, and the snapshot of the bytes written is kept
// for the next reader.
bool ApplyMemberChange(GroupChange* c) {
  const std::string group_path = TavoRootPath(kGroupPath);
  const std::string gshadow_path = TavoRootPath(kGshadowPath);
  std::shared_ptr<const GroupDb> db = LocalGroupsNow();
  if (!db) return false;
  bool has_gshadow = false;
  std::shared_ptr<const FileText> gshadow = GshadowNow(&has_gshadow);
  if (!gshadow) return false;
  const std::string_view gshadow_text = gshadow->Text();

  // The first line of the stored name that parses is the group's.
  const int self = db->FindExact(c->orig_name);
  if (self < 0) return ACCT_ERR(TAVO_ERR_NO_GROUP), false;
  const std::string_view group_text = db->Text();
  LineSpan span;
  span.begin = db->LineBegin(self);
  span.end = db->LineEnd(self);
  GroupLine g = db->Line(self);
  c->gid_out = g.gid;
  // Nothing to change: the lines stay as they are, byte for byte, even where
  // a rewrite would tidy them.
  if (c->added.empty() && c->removed.empty()) return true;
  const std::string old_line(group_text.substr(span.begin, span.end - span.begin));
  const std::vector<std::string> before = g.members;
  ApplyMembers(&g.members, c->added, c->removed);
  if (!c->removed.empty()) {
    int why = CheckAdministratorsLeft(g.name, before, g.members);
    if (why != TAVO_ERR_NONE) return TAVO_ERR_SET(why), false;
  }
  const std::string new_line = FormatGroupLine(g);

  // The new files are written from the old bytes and the new lines as they
  // are; what the pieces view lives until the writer is done.
  GshadowEdit gshadow_edit;
  if (has_gshadow) gshadow_edit = EditGshadow(gshadow_text, *c, g.members);
  FileSetWriter writer;
  const bool group_changes = new_line != old_line;
  if (group_changes) writer.Add(group_path, SplicePieces(group_text, span, new_line));
  if (has_gshadow && !gshadow_edit.unchanged)
    writer.Add(gshadow_path, EditPieces(gshadow_text, gshadow_edit), 0640);
  if (!writer.Commit()) return false;
  if (IsOneShotProcess()) return true;  // nobody reads them again
  if (group_changes)
    InstallLocalGroups(db->WithMembersChanged(self, writer.TakeContent(group_path)));
  std::string gshadow_written = writer.TakeContent(gshadow_path);
  if (!gshadow_written.empty()) InstallGshadow(std::move(gshadow_written));
  return true;
}

// A rename or a new description (with any change of members made with it):
// the group's line, its gshadow line and its description lines are replaced
// in the files' bytes; every other byte stays as it is. The name is checked
// on the snapshot of etc/group; the snapshots of the bytes written are kept.
bool ApplyRenameOrDescription(GroupChange* c) {
  const std::string group_path = TavoRootPath(kGroupPath);
  const std::string gshadow_path = TavoRootPath(kGshadowPath);
  const std::string desc_path = TavoRootPath(kDescPath);
  std::shared_ptr<const GroupDb> db = LocalGroupsNow();
  auto defs = Defs();
  if (!db || !defs) return false;
  const int self = db->FindExact(c->orig_name);
  if (self < 0) return ACCT_ERR(TAVO_ERR_NO_GROUP), false;
  // A name that stays as it is is not checked again: names already in the
  // files stay manageable whatever they hold.
  if (c->new_name != c->orig_name) c->new_name = NfcName(c->new_name);
  const bool renaming = c->new_name != c->orig_name;
  if (renaming) {
    int why = CheckNewGroupName(*db, *defs, c->new_name, self);
    if (why != TAVO_ERR_NONE) return TAVO_ERR_SET(why), false;
  }
  GroupLine g = db->Line(self);
  c->gid_out = g.gid;
  const std::vector<std::string> before = g.members;
  ApplyMembers(&g.members, c->added, c->removed);
  if (!c->removed.empty()) {
    int why = CheckAdministratorsLeft(c->orig_name, before, g.members);
    if (why != TAVO_ERR_NONE) return TAVO_ERR_SET(why), false;
  }
  g.name = c->new_name;
  const bool lines_change = renaming || !c->added.empty() || !c->removed.empty();

  FileSetWriter writer;
  if (lines_change) {
    const std::string_view text = db->Text();
    LineSpan span;
    span.begin = db->LineBegin(self);
    span.end = db->LineEnd(self);
    const std::string line = FormatGroupLine(g);
    if (text.compare(span.begin, span.end - span.begin, line) != 0)
      writer.Add(group_path, SpliceLine(text, span, line));
  }
  bool has_gshadow = false;
  std::shared_ptr<const FileText> gshadow = GshadowNow(&has_gshadow);
  if (!gshadow) return false;
  if (lines_change && has_gshadow) {
    std::string text = ChangedGshadow(gshadow->Text(), *c, g.members);
    if (!text.empty()) writer.Add(gshadow_path, std::move(text), 0640);
  }
  // Descriptions: the line moves with a rename and goes with an empty text.
  std::shared_ptr<const DescDb> descs = DescriptionsNow();
  if (!descs) return false;
  if (c->desc_changed || (renaming && (descs->Has(c->orig_name) || descs->Has(c->new_name)))) {
    const std::string desc = c->desc_changed ? c->desc : std::string(descs->Find(c->orig_name));
    std::string text;
    FileKey key;
    if (!ReadWholeFile(desc_path, &text, &key)) return false;
    std::string now = text;
    DropNamedLines(&now, c->orig_name, static_cast<size_t>(-1));
    DropNamedLines(&now, c->new_name, static_cast<size_t>(-1));
    if (!desc.empty()) now = AppendLine(now, c->new_name + ":" + desc);
    if (now != text) {
      mkdir(desc_path.substr(0, desc_path.rfind('/')).c_str(), 0755);
      writer.Add(desc_path, std::move(now));
    }
  }
  if (!writer.Commit()) return false;
  // The next reader finds the snapshots of the bytes written.
  if (IsOneShotProcess()) return true;  // nobody reads them again
  std::string group_written = writer.TakeContent(group_path);
  if (!group_written.empty()) InstallLocalGroups(BuildGroupDb(std::move(group_written)));
  std::string gshadow_written = writer.TakeContent(gshadow_path);
  if (!gshadow_written.empty()) InstallGshadow(std::move(gshadow_written));
  return true;
}

}  // namespace

// Removes `gone` (every entry of the exact spelling, as a list written by
// hand may name a member twice; else a case variant) and appends each of
// `added` not yet present in any case.
void ApplyMembers(std::vector<std::string>* members, const std::vector<std::string>& added,
                  const std::vector<std::string>& gone) {
  for (const std::string& r : gone) {
    size_t before = members->size();
    members->erase(std::remove(members->begin(), members->end(), r), members->end());
    if (members->size() != before) continue;
    auto it = std::find_if(members->begin(), members->end(),
                           [&](const std::string& m) { return EqualIgnoringCase(m, r); });
    if (it != members->end()) members->erase(it);
  }
  for (const std::string& a : added) {
    bool present = std::any_of(members->begin(), members->end(),
                               [&](const std::string& m) { return EqualIgnoringCase(m, a); });
    if (!present) members->push_back(a);
  }
}

int CheckGroupLimit(int count) {
  TavoConf conf;
  const long limit = strtol(conf.Def("maxgroups", "128"), nullptr, 10);
  return count < limit ? TAVO_ERR_NONE : TAVO_ERR_LIMIT;
}

bool ApplyGroupChange(GroupChange* c) {
  AccountLock lock;
  if (!LockAndRecover(&lock)) return false;
  // Members are written under the user's own name, as glibc and the account
  // tools match them exactly; a name that is no user's stays as given.
  if (!c->added.empty()) {
    auto users = Passwd();
    if (!users) return false;
    for (std::string& a : c->added) {
      int u = users->Find(a);
      if (u >= 0) a.assign(users->Name(u));
    }
  }
  const bool renaming = !c->create && c->new_name != c->orig_name;
  if (c->create) return ApplyCreate(c);
  if (!renaming && !c->desc_changed) return ApplyMemberChange(c);
  return ApplyRenameOrDescription(c);
}

int DeleteGroups(const std::vector<std::string>& names) {
  AccountLock lock;
  if (!LockAndRecover(&lock)) return -1;
  std::shared_ptr<const GroupDb> db = LocalGroupsNow();
  auto defs = Defs();
  auto users = Passwd();
  if (!db || !defs || !users) return -1;
  std::set<unsigned> primary;
  for (size_t u = 0; u < users->size(); ++u) primary.insert(users->Gid(static_cast<int>(u)));

  // The groups to delete by stored name and GID: another line of the same
  // name (a system group, or a line that does not parse) is not theirs.
  std::set<std::pair<std::string, unsigned>> gone;
  std::set<unsigned> gone_gids;
  for (const std::string& name : names) {
    int i = db->Find(name);
    if (i < 0) continue;
    if (!db->Reachable(i, *defs) || db->Builtin(i) || primary.count(db->Gid(i))) continue;
    gone.emplace(std::string(db->Name(i)), db->Gid(i));
    gone_gids.insert(db->Gid(i));
  }
  if (gone.empty()) return 0;
  auto is_gone = [&](int k) {
    return gone_gids.count(db->Gid(k)) && gone.count({std::string(db->Name(k)), db->Gid(k)});
  };
  // etc/group: every line of a deleted group goes; every other byte stays.
  const std::string_view text = db->Text();
  std::string group_text;
  group_text.reserve(text.size());
  size_t from = 0;
  for (size_t i = 0; i < db->size(); ++i) {
    const int k = static_cast<int>(i);
    if (!is_gone(k)) continue;
    const size_t begin = db->LineBegin(k), end = db->LineEnd(k);
    group_text.append(text.substr(from, begin - from));
    from = end < text.size() ? end + 1 : end;
  }
  group_text.append(text.substr(from));
  // The gshadow and description lines go with the last group line of a name.
  auto still_named = [&](const std::string& name) {
    bool found = false;
    db->ForEachVariant(FoldCase(name),
                       [&](int k) { found = found || (db->Name(k) == name && !is_gone(k)); });
    for (std::string_view n : db->UnparsedNames()) found = found || n == name;
    return found;
  };
  std::vector<std::string> orphaned;  // names whose last group line went
  for (const auto& g : gone)
    if ((orphaned.empty() || orphaned.back() != g.first) && !still_named(g.first))
      orphaned.push_back(g.first);

  const std::string group_path = TavoRootPath(kGroupPath);
  const std::string gshadow_path = TavoRootPath(kGshadowPath);
  const std::string desc_path = TavoRootPath(kDescPath);
  FileSetWriter writer;
  writer.Add(group_path, std::move(group_text));
  bool has_gshadow = false;
  std::shared_ptr<const FileText> gshadow = GshadowNow(&has_gshadow);
  std::shared_ptr<const DescDb> descs = DescriptionsNow();
  if (!gshadow || !descs) return -1;
  if (has_gshadow) {
    std::string now(gshadow->Text());
    bool changed = false;
    for (const std::string& name : orphaned)
      changed = DropNamedLines(&now, name, static_cast<size_t>(-1)) || changed;
    if (changed) writer.Add(gshadow_path, std::move(now), 0640);
  }
  if (std::any_of(orphaned.begin(), orphaned.end(),
                  [&](const std::string& n) { return descs->Has(n); })) {
    std::string now;
    FileKey key;
    if (!ReadWholeFile(desc_path, &now, &key)) return -1;
    bool changed = false;
    for (const std::string& name : orphaned)
      changed = DropNamedLines(&now, name, static_cast<size_t>(-1)) || changed;
    if (changed) writer.Add(desc_path, std::move(now));
  }
  if (!writer.Commit()) return -1;
  // The next reader finds the snapshots of the bytes written.
  if (IsOneShotProcess()) return static_cast<int>(gone.size());  // nobody reads them again
  InstallLocalGroups(BuildGroupDb(writer.TakeContent(group_path)));
  std::string gshadow_written = writer.TakeContent(gshadow_path);
  if (!gshadow_written.empty()) InstallGshadow(std::move(gshadow_written));
  return static_cast<int>(gone.size());
}

}  // namespace acct
}  // namespace tavo
