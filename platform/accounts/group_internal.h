// Internal interface between the group object, the group readers and the
// group writers of the account store.
//
// Thread-safety: every function may be called from any thread.
// Errors: failures return false / -1 / null with the error state set.
#ifndef TAVO_PLATFORM_GROUP_INTERNAL_H_
#define TAVO_PLATFORM_GROUP_INTERNAL_H_

#include <memory>
#include <new>
#include <string>
#include <vector>

#include "accounts/acct_error.h"
#include "accounts/snapshot/account_db.h"

namespace tavo {
namespace acct {

// Runs `f` and turns any exception into an error state and `fail`, so that
// nothing is thrown across the C interface.
template <typename R, typename F>
R Guarded(R fail, F&& f) {
  try {
    return f();
  } catch (const std::bad_alloc&) {
    ACCT_ERR(TAVO_ERR_NOMEM);
  } catch (...) {
    ACCT_ERR(TAVO_ERR_IO);
  }
  return fail;
}

// 2 for "DOMAIN\name", 8 for "name@domain", else 1 (local).
int KindOfName(std::string_view name);
// The group list of a kind (1, 2 or 8); null with the error state on failure
// (TAVO_ERR_ARGUMENT for an unknown kind).
std::shared_ptr<const GroupDb> GroupsOfKind(int kind);
// The description of a local group by its stored name ("" when none).
std::string DescriptionOf(const DescDb& descs, std::string_view stored_name);

// One group's change, applied by ApplyGroupChange to the files as they are
// under the account locks.
struct GroupChange {
  bool create = false;
  std::string orig_name;  // stored spelling of a loaded group
  std::string new_name;   // the name to store (== orig_name when not renamed)
  bool desc_changed = false;
  std::string desc;
  std::vector<std::string> added, removed;
  unsigned gid_out = 0;  // the group's GID after the write
};
// Under the account locks, before it writes, a change is refused when
// - it creates a group while `maxgroups` (tavo.conf, default 128) or more
//   local groups exist: TAVO_ERR_LIMIT;
// - it removes members of "administrators" and leaves no valid administrator
//   where there was one: TAVO_ERR_NO_USER.
// Callers may have checked both before the locks; these checks see the files
// as the write will change them, so concurrent writers cannot both pass.
bool ApplyGroupChange(GroupChange* change);
// A creation (called by ApplyGroupChange under the account locks, with the
// added members already spelt as stored): the group's lines are appended to
// the files' bytes; the name and the limit are checked on the snapshot.
bool ApplyCreate(GroupChange* change);
// TAVO_ERR_NONE, or why group `self` of `db` (-1: a new group) may not be
// called `name`: the first line in the file, other than the group's own,
// whose name equals it ignoring case decides (a line that does not parse
// still holds its name for the account tools; a system group's name is
// reserved); the built-ins keep their names but for the letter case.
int CheckNewGroupName(const GroupDb& db, const LoginDefs& defs, const std::string& name, int self);
// Removes `gone` (every entry of the exact spelling, else one case variant)
// from `members` and appends each of `added` not yet present in any case.
void ApplyMembers(std::vector<std::string>* members, const std::vector<std::string>& added,
                  const std::vector<std::string>& gone);
// TAVO_ERR_NONE, or TAVO_ERR_LIMIT when `count` local groups already reach
// the configured maximum ("maxgroups", read as the group module reads it).
int CheckGroupLimit(int count);
// The number of distinct valid local administrators among `members` (local
// users, resolved as logins resolve them, whose accounts are not expired or
// locked); -1 with the error state when the account files cannot be read.
int CountValidAdmins(const std::vector<std::string>& members);
// Deletes the named local groups that may be deleted; the number deleted, or
// -1 when the write failed.
int DeleteGroups(const std::vector<std::string>& names);

}  // namespace acct
}  // namespace tavo

#endif  // TAVO_PLATFORM_GROUP_INTERNAL_H_
