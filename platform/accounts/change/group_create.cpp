// Creation of a local group under the account locks. The name, the group
// limit and the new GID are decided on the snapshot of etc/group (reused
// when the file is unchanged); the new lines are appended to the files'
// bytes, so every other line stays as it is.
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <unordered_set>

#include "accounts/change/atomic_write.h"
#include "accounts/change/line_splice.h"
#include "accounts/group_internal.h"
#include "accounts/snapshot/name_rule.h"
#include "accounts/snapshot/names.h"
#include "accounts/snapshot/snapshot.h"
#include "tavo/error.h"
#include "tavo/one_shot.h"
#include "tavo/root.h"

namespace tavo {
namespace acct {
namespace {

// Highest GID in use in the range plus one; past the range, the lowest free.
// (gid_t)-1 is never given out: it means "no change" to chown(2).
bool AllocateGid(const GroupDb& db, const LoginDefs& defs, unsigned* gid) {
  const unsigned gid_max = std::min(defs.gid_max, 0xFFFFFFFEu);
  if (defs.gid_min > gid_max) return false;
  unsigned highest = 0;
  bool any = false;
  for (size_t i = 0; i < db.size(); ++i) {
    const unsigned g = db.Gid(static_cast<int>(i));
    if (g >= defs.gid_min && g <= gid_max && (!any || g > highest)) {
      highest = g;
      any = true;
    }
  }
  if (!any) {
    *gid = defs.gid_min;
    return true;
  }
  if (highest < gid_max) {
    *gid = highest + 1;
    return true;
  }
  std::unordered_set<unsigned> used;
  for (size_t i = 0; i < db.size(); ++i) used.insert(db.Gid(static_cast<int>(i)));
  for (unsigned long g = defs.gid_min; g <= gid_max; ++g) {
    if (!used.count(static_cast<unsigned>(g))) {
      *gid = static_cast<unsigned>(g);
      return true;
    }
  }
  return false;
}

// Whether `name` would pass for another group: its skeleton, as written or
// case-folded, is that of a group in the files (system groups included;
// `self` aside) or of a built-in one, while it does not fold to that name.
bool LooksLikeAnother(const GroupDb& db, const std::string& name, int self) {
  const std::string as_written = Skeleton(name);
  const std::string folded_skeleton = NameSkeleton(name);
  if (as_written.empty() || folded_skeleton.empty()) return false;
  const std::string folded = FoldCase(name);
  const auto same = [&](std::string_view other) {
    return (SkeletonIs(other, as_written, false) || SkeletonIs(other, folded_skeleton, true)) &&
           FoldCase(std::string(other)) != folded;
  };
  if (same("administrators") || same("users")) return true;
  for (int i = 0; i < static_cast<int>(db.size()); ++i)
    if (i != self && same(db.Name(i))) return true;
  return false;
}

}  // namespace

int CheckNewGroupName(const GroupDb& db, const LoginDefs& defs, const std::string& name, int self) {
  int syntax = CheckGroupNameSyntax(name);
  if (syntax != TAVO_ERR_NONE) return syntax;
  if (HasInvisible(name) || LooksLikeAnother(db, name, self)) return TAVO_ERR_BAD_VALUE;
  const std::string folded = FoldCase(name);
  const bool self_builtin = self >= 0 && db.Builtin(self);
  if (IsBuiltinGroupName(name) && !self_builtin) return TAVO_ERR_RESERVED;
  if (self_builtin && db.Folded(self) != folded) return TAVO_ERR_RESERVED;
  int entry = -1;
  db.ForEachVariant(folded, [&](int i) {
    if (entry < 0 && i != self) entry = i;
  });
  const char* first_unparsed = nullptr;
  for (std::string_view n : db.UnparsedNames()) {
    if (FoldCase(std::string(n)) == folded) {
      first_unparsed = n.data();
      break;
    }
  }
  if (first_unparsed && (entry < 0 || first_unparsed < db.Name(entry).data()))
    return TAVO_ERR_EXISTS;
  if (entry < 0) return TAVO_ERR_NONE;
  return db.Reachable(entry, defs) ? TAVO_ERR_EXISTS : TAVO_ERR_RESERVED;
}

bool ApplyCreate(GroupChange* c) {
  std::shared_ptr<const GroupDb> db = LocalGroupsNow();
  auto defs = Defs();
  if (!db || !defs) return false;
  c->new_name = NfcName(c->new_name);
  int why = CheckNewGroupName(*db, *defs, c->new_name, -1);
  if (why != TAVO_ERR_NONE) return TAVO_ERR_SET(why), false;
  const int local = static_cast<int>(db->CountReachable(*defs));
  why = CheckGroupLimit(local);
  if (why != TAVO_ERR_NONE) return TAVO_ERR_SET(why), false;

  GroupLine g;
  g.name = c->new_name;
  g.password = "x";
  if (!AllocateGid(*db, *defs, &g.gid)) return ACCT_ERR(TAVO_ERR_LIMIT), false;
  ApplyMembers(&g.members, c->added, {});
  c->gid_out = g.gid;
  const std::string members = JoinMembers(g.members);

  const std::string group_path = TavoRootPath(kGroupPath);
  const std::string gshadow_path = TavoRootPath(kGshadowPath);
  const std::string desc_path = TavoRootPath(kDescPath);
  // The new files are written from the old bytes and the new lines as they
  // are; what the pieces view lives until the writer is done.
  const std::string group_line = FormatGroupLine(g);
  const std::string gshadow_line = c->new_name + ":!::" + members;
  FileSetWriter writer;
  writer.Add(group_path, AppendPieces(db->Text(), group_line));
  // A line left in gshadow for a group of this name that is gone is not kept twice.
  bool has_gshadow = false;
  std::shared_ptr<const FileText> gshadow = GshadowNow(&has_gshadow);
  if (!gshadow) return false;
  if (has_gshadow) {
    LineSpan stale;
    if (FindNamedLine(gshadow->Text(), c->new_name, 0, &stale)) {
      std::string text(gshadow->Text());
      DropNamedLines(&text, c->new_name, 1);
      writer.Add(gshadow_path, AppendLine(text, gshadow_line), 0640);
    } else {
      writer.Add(gshadow_path, AppendPieces(gshadow->Text(), gshadow_line), 0640);
    }
  }
  // Descriptions: an old line of this name goes; the new one is added when
  // there is a text. The file is read only then.
  std::shared_ptr<const DescDb> descs = DescriptionsNow();
  if (!descs) return false;
  if (descs->Has(c->new_name) || !c->desc.empty()) {
    std::string text;
    FileKey key;
    if (!ReadWholeFile(desc_path, &text, &key)) return false;
    DropNamedLines(&text, c->new_name, static_cast<size_t>(-1));
    if (!c->desc.empty()) text = AppendLine(text, c->new_name + ":" + c->desc);
    mkdir(desc_path.substr(0, desc_path.rfind('/')).c_str(), 0755);
    writer.Add(desc_path, std::move(text));
  }
  if (!writer.Commit()) return false;
  // The next reader finds the snapshot of the bytes written, made without
  // parsing the file again. Even a one-shot process keeps that of etc/group:
  // the creator reads the new group back, and carrying the entries over
  // costs less than parsing the file anew.
  InstallLocalGroups(db->WithLineAppended(writer.TakeContent(group_path)));
  if (IsOneShotProcess()) return true;  // nobody reads gshadow again
  std::string gshadow_written = writer.TakeContent(gshadow_path);
  if (!gshadow_written.empty()) InstallGshadow(std::move(gshadow_written));
  return true;
}

}  // namespace acct
}  // namespace tavo
