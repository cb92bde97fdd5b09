// The parsed account files as shared, immutable snapshots with lookup indexes.
//
// Each accessor returns the snapshot of one file inside the current root as it
// is now (see snapshot.h): ROOT/etc/group, the domain and LDAP group lists,
// ROOT/etc/passwd, ROOT/etc/shadow, ROOT/etc/login.defs and the description
// file ROOT/etc/tavo/group_desc.
//
// Ownership: snapshots are shared; hold the pointer for as long as you use
// anything inside it. Thread-safety: any thread. Errors: accessors return null
// with the error state set (TAVO_ERR_IO when a required file cannot be read,
// TAVO_ERR_NOMEM); optional files (shadow, login.defs, lists, descriptions)
// that are missing read as empty.
#ifndef TAVO_PLATFORM_ACCOUNT_DB_H_
#define TAVO_PLATFORM_ACCOUNT_DB_H_

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "account_files.h"

namespace tavo {
namespace acct {

// Platform paths of the files.
extern const char kGroupPath[];
extern const char kGshadowPath[];
extern const char kPasswdPath[];
extern const char kShadowPath[];
extern const char kLoginDefsPath[];
extern const char kDescPath[];
extern const char kDomainGroupPath[];
extern const char kLdapGroupPath[];

struct GroupDb {
  std::vector<GroupLine> groups;   // file order
  std::vector<std::string> folded; // FoldCase of each name
  std::vector<char> builtin;       // whether each name is a built-in group's
  std::unordered_map<std::string, int> by_name;                // first exact spelling
  std::unordered_map<std::string, std::vector<int>> by_fold;  // every case variant
  // Indexes ordered by folded name, then name; built on first use (only
  // listings need it), safely from any thread.
  const std::vector<int>& Sorted() const;
  // The group named `name`: the exact spelling wins, then a case variant. -1 if none.
  int Find(const std::string& name) const;
  // Whether the group at `idx` is reachable under `defs` (see IsReachable).
  bool Reachable(int idx, const LoginDefs& defs) const {
    return groups[idx].gid >= defs.gid_min || builtin[idx];
  }
  // The reachable groups under `defs` in the order of Sorted(). Built once per
  // GID_MIN and kept (a listing page is then a slice of it); any thread.
  std::shared_ptr<const std::vector<int>> SortedReachable(const LoginDefs& defs) const;

 private:
  mutable std::once_flag sorted_once_;
  mutable std::vector<int> sorted_;
  mutable std::mutex reachable_mu_;
  mutable unsigned reachable_gid_min_ = 0;
  mutable std::shared_ptr<const std::vector<int>> reachable_;  // guarded by reachable_mu_
};

struct UserDb {
  std::vector<PasswdLine> users;  // file order
  std::vector<int> sorted;        // indexes ordered by folded name, then name
  std::unordered_map<std::string, int> by_name;
  std::unordered_map<std::string, std::vector<int>> by_fold;
  int Find(const std::string& name) const;

  // The local users (IsLocalUser) in the order of `sorted`, and the rank of
  // each user in that order (-1 for users that are not local).
  struct LocalOrder {
    std::vector<int> order;
    std::vector<int> rank;
  };
  // Built once per UID range and kept; any thread.
  std::shared_ptr<const LocalOrder> Local(const LoginDefs& defs) const;

 private:
  mutable std::mutex local_mu_;
  mutable unsigned local_min_ = 0, local_max_ = 0;
  mutable std::shared_ptr<const LocalOrder> local_;  // guarded by local_mu_
};

using ShadowDb = std::unordered_map<std::string, ShadowLine>;
using DescDb = std::unordered_map<std::string, std::string>;

std::shared_ptr<GroupDb> BuildGroupDb(const std::string& content);

std::shared_ptr<const GroupDb> LocalGroups();
std::shared_ptr<const GroupDb> DomainGroups();
std::shared_ptr<const GroupDb> LdapGroups();
std::shared_ptr<const UserDb> Passwd();
std::shared_ptr<const ShadowDb> Shadow();
std::shared_ptr<const LoginDefs> Defs();
std::shared_ptr<const DescDb> Descriptions();

// Built-ins and groups with GID >= GID_MIN; system groups are not.
bool IsReachable(const GroupLine& g, const LoginDefs& defs);
// passwd entries with UID_MIN <= uid <= UID_MAX, except "nobody".
bool IsLocalUser(const PasswdLine& u, const LoginDefs& defs);
// Expired, or locked with "!" or "*" in its password field.
bool IsExpired(const PasswdLine& u, const ShadowDb& shadow);

}  // namespace acct
}  // namespace tavo

#endif  // TAVO_PLATFORM_ACCOUNT_DB_H_
