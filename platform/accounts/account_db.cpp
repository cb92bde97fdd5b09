// Snapshots of the account files and their indexes.
#include "account_db.h"

#include <algorithm>
#include <ctime>

#include "names.h"
#include "snapshot.h"
#include "tavo/root.h"

namespace tavo {
namespace acct {

const char kGroupPath[] = "/etc/group";
const char kGshadowPath[] = "/etc/gshadow";
const char kPasswdPath[] = "/etc/passwd";
const char kShadowPath[] = "/etc/shadow";
const char kLoginDefsPath[] = "/etc/login.defs";
const char kDescPath[] = "/etc/tavo/group_desc";
const char kDomainGroupPath[] = "/etc/tavo/domain_group";
const char kLdapGroupPath[] = "/usr/tavo/etc/private/ldap_group";

namespace {

template <typename Db>
int FindIn(const Db& db, const std::string& name) {
  auto ex = db.by_name.find(name);
  if (ex != db.by_name.end()) return ex->second;
  auto it = db.by_fold.find(FoldCase(name));
  if (it == db.by_fold.end() || it->second.empty()) return -1;
  return it->second.front();
}

std::shared_ptr<UserDb> BuildUserDb(const std::string& content) {
  auto db = std::make_shared<UserDb>();
  std::vector<std::string> folded;
  const std::vector<std::string> lines = SplitLines(content);
  db->users.reserve(lines.size());
  db->by_name.reserve(lines.size());
  db->by_fold.reserve(lines.size());
  for (const std::string& line : lines) {
    PasswdLine u;
    if (!ParsePasswdLine(line, &u)) continue;
    int idx = static_cast<int>(db->users.size());
    folded.push_back(FoldCase(u.name));
    db->by_name.emplace(u.name, idx);
    db->by_fold[folded.back()].push_back(idx);
    db->users.push_back(std::move(u));
  }
  db->sorted.resize(db->users.size());
  for (size_t i = 0; i < db->sorted.size(); ++i) db->sorted[i] = static_cast<int>(i);
  std::sort(db->sorted.begin(), db->sorted.end(), [&](int a, int b) {
    if (folded[a] != folded[b]) return folded[a] < folded[b];
    return db->users[a].name < db->users[b].name;
  });
  return db;
}

std::shared_ptr<ShadowDb> BuildShadowDb(const std::string& content) {
  auto db = std::make_shared<ShadowDb>();
  for (const std::string& line : SplitLines(content)) {
    ShadowLine s;
    if (ParseShadowLine(line, &s)) db->emplace(s.name, std::move(s));
  }
  return db;
}

}  // namespace

int GroupDb::Find(const std::string& name) const { return FindIn(*this, name); }

const std::vector<int>& GroupDb::Sorted() const {
  std::call_once(sorted_once_, [this] {
    sorted_.resize(groups.size());
    for (size_t i = 0; i < sorted_.size(); ++i) sorted_[i] = static_cast<int>(i);
    std::sort(sorted_.begin(), sorted_.end(), [this](int a, int b) {
      if (folded[a] != folded[b]) return folded[a] < folded[b];
      return groups[a].name < groups[b].name;
    });
  });
  return sorted_;
}

std::shared_ptr<const std::vector<int>> GroupDb::SortedReachable(const LoginDefs& defs) const {
  {
    std::lock_guard<std::mutex> lock(reachable_mu_);
    if (reachable_ && reachable_gid_min_ == defs.gid_min) return reachable_;
  }
  auto list = std::make_shared<std::vector<int>>();
  list->reserve(groups.size());
  for (int idx : Sorted())
    if (Reachable(idx, defs)) list->push_back(idx);
  std::lock_guard<std::mutex> lock(reachable_mu_);
  reachable_ = list;
  reachable_gid_min_ = defs.gid_min;
  return list;
}

int UserDb::Find(const std::string& name) const { return FindIn(*this, name); }

std::shared_ptr<const UserDb::LocalOrder> UserDb::Local(const LoginDefs& defs) const {
  {
    std::lock_guard<std::mutex> lock(local_mu_);
    if (local_ && local_min_ == defs.uid_min && local_max_ == defs.uid_max) return local_;
  }
  auto local = std::make_shared<LocalOrder>();
  local->rank.assign(users.size(), -1);
  for (int idx : sorted) {
    if (!IsLocalUser(users[idx], defs)) continue;
    local->rank[idx] = static_cast<int>(local->order.size());
    local->order.push_back(idx);
  }
  std::lock_guard<std::mutex> lock(local_mu_);
  local_ = local;
  local_min_ = defs.uid_min;
  local_max_ = defs.uid_max;
  return local;
}

std::shared_ptr<GroupDb> BuildGroupDb(const std::string& content) {
  auto db = std::make_shared<GroupDb>();
  const std::vector<std::string> lines = SplitLines(content);
  db->groups.reserve(lines.size());
  db->folded.reserve(lines.size());
  db->builtin.reserve(lines.size());
  db->by_name.reserve(lines.size());
  db->by_fold.reserve(lines.size());
  for (const std::string& line : lines) {
    GroupLine g;
    if (!ParseGroupLine(line, &g)) continue;
    int idx = static_cast<int>(db->groups.size());
    db->folded.push_back(FoldCase(g.name));
    db->builtin.push_back(db->folded.back() == "administrators" || db->folded.back() == "users");
    db->by_name.emplace(g.name, idx);
    db->by_fold[db->folded.back()].push_back(idx);
    db->groups.push_back(std::move(g));
  }
  return db;
}

std::shared_ptr<const GroupDb> LocalGroups() {
  static SnapshotCache<GroupDb> cache(BuildGroupDb, false);
  return cache.Get(TavoRootPath(kGroupPath));
}

std::shared_ptr<const GroupDb> DomainGroups() {
  static SnapshotCache<GroupDb> cache(BuildGroupDb, true);
  return cache.Get(TavoRootPath(kDomainGroupPath));
}

std::shared_ptr<const GroupDb> LdapGroups() {
  static SnapshotCache<GroupDb> cache(BuildGroupDb, true);
  return cache.Get(TavoRootPath(kLdapGroupPath));
}

std::shared_ptr<const UserDb> Passwd() {
  static SnapshotCache<UserDb> cache(BuildUserDb, false);
  return cache.Get(TavoRootPath(kPasswdPath));
}

std::shared_ptr<const ShadowDb> Shadow() {
  static SnapshotCache<ShadowDb> cache(BuildShadowDb, true);
  return cache.Get(TavoRootPath(kShadowPath));
}

std::shared_ptr<const LoginDefs> Defs() {
  static SnapshotCache<LoginDefs> cache(
      [](const std::string& c) { return std::make_shared<LoginDefs>(ParseLoginDefs(c)); }, true);
  return cache.Get(TavoRootPath(kLoginDefsPath));
}

std::shared_ptr<const DescDb> Descriptions() {
  static SnapshotCache<DescDb> cache(
      [](const std::string& c) {
        auto parsed = ParseDescriptions(c);
        return std::make_shared<DescDb>(parsed.begin(), parsed.end());
      }, true);
  return cache.Get(TavoRootPath(kDescPath));
}

bool IsReachable(const GroupLine& g, const LoginDefs& defs) {
  return g.gid >= defs.gid_min || IsBuiltinGroupName(g.name);
}

bool IsLocalUser(const PasswdLine& u, const LoginDefs& defs) {
  return u.uid >= defs.uid_min && u.uid <= defs.uid_max && u.name != "nobody";
}

bool IsExpired(const PasswdLine& u, const ShadowDb& shadow) {
  auto it = shadow.find(u.name);
  const std::string& hash = it != shadow.end() ? it->second.hash : u.password;
  if (!hash.empty() && (hash[0] == '!' || hash[0] == '*')) return true;
  if (it == shadow.end() || it->second.expire_days < 0) return false;
  long today = static_cast<long>(std::time(nullptr) / 86400);
  return it->second.expire_days <= today;
}

}  // namespace acct
}  // namespace tavo
