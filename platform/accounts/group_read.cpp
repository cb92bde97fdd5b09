// The group database's read functions: lookups, descriptions, counts and the
// paged enumerator. All of them work on the shared snapshots of account_db.h.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "accounts/group_internal.h"
#include "accounts/snapshot/names.h"
#include "accounts/snapshot/snapshot.h"
#include "tavo/group.h"
#include "tavo/testing.h"
#include "tavo/wait_notice.h"

namespace tavo {
namespace acct {

int KindOfName(std::string_view name) {
  if (name.find('\\') != std::string_view::npos) return TAVO_GROUP_DOMAIN;
  if (name.find('@') != std::string_view::npos) return TAVO_GROUP_LDAP;
  return TAVO_GROUP_LOCAL;
}

std::shared_ptr<const GroupDb> GroupsOfKind(int kind) {
  switch (kind) {
    case TAVO_GROUP_LOCAL:
      return LocalGroups();
    case TAVO_GROUP_DOMAIN:
      return DomainGroups();
    case TAVO_GROUP_LDAP:
      return LdapGroups();
    default:
      ACCT_ERR(TAVO_ERR_ARGUMENT);
      return nullptr;
  }
}

std::string DescriptionOf(const DescDb& descs, std::string_view stored_name) {
  return std::string(descs.Find(stored_name));
}

namespace {

char* Dup(std::string_view s) {
  char* p = static_cast<char*>(std::malloc(s.size() + 1));
  if (!p) throw std::bad_alloc();
  std::memcpy(p, s.data(), s.size());
  p[s.size()] = '\0';
  return p;
}

// A new TAVO_GROUP record for group `i` of `db`; frees what it allocated on failure.
TAVO_GROUP* NewRecord(const GroupDb& db, int i, int kind) {
  TAVO_GROUP* r = static_cast<TAVO_GROUP*>(std::calloc(1, sizeof(TAVO_GROUP)));
  if (!r) throw std::bad_alloc();
  try {
    r->gid = db.Gid(i);
    r->kind = kind;
    size_t count = 0;
    ForEachMember(db.MemberList(i), [&](std::string_view) { ++count; });
    r->members = static_cast<char**>(std::calloc(count + 1, sizeof(char*)));
    if (!r->members) throw std::bad_alloc();
    r->name = Dup(db.Name(i));
    ForEachMember(db.MemberList(i),
                  [&](std::string_view m) { r->members[r->member_count++] = Dup(m); });
  } catch (...) {
    TAVOGroupFree(r);
    throw;
  }
  return r;
}

// Index of the reachable group named `name` in the list of its kind, or -1
// with TAVO_ERR_NO_GROUP.
int FindReachable(std::string_view name, std::shared_ptr<const GroupDb>* db, int* kind) {
  *kind = KindOfName(name);
  *db = GroupsOfKind(*kind);
  if (!*db) return -1;
  int i = (*db)->Find(name);
  if (i >= 0 && *kind == TAVO_GROUP_LOCAL) {
    auto defs = Defs();
    if (!defs) return -1;
    if (!(*db)->Reachable(i, *defs)) i = -1;
  }
  if (i < 0) ACCT_ERR(TAVO_ERR_NO_GROUP);
  return i;
}

bool MatchesDomain(const std::string& name, const std::string& domain) {
  if (domain.empty()) return true;
  size_t p = name.find('\\');
  return p != std::string::npos && EqualIgnoringCase(name.substr(0, p), domain);
}

}  // namespace
}  // namespace acct
}  // namespace tavo

using namespace tavo::acct;

extern "C" {

int TAVOGroupGet(const char* name, TAVO_GROUP** out) {
  if (out) *out = nullptr;
  if (!name || !out) return TAVO_ERR_SET(TAVO_ERR_ARGUMENT);
  if (TAVO_FAULT("group.get")) return -1;
  return Guarded(-1, [&] {
    std::shared_ptr<const GroupDb> db;
    int kind;
    int i = FindReachable(name, &db, &kind);
    if (i < 0) return -1;
    *out = NewRecord(*db, i, kind);
    return 0;
  });
}

int TAVOGroupGetByGID(unsigned int gid, TAVO_GROUP** out) {
  if (out) *out = nullptr;
  if (!out) return TAVO_ERR_SET(TAVO_ERR_ARGUMENT);
  if (TAVO_FAULT("group.get")) return -1;
  return Guarded(-1, [&] {
    auto db = LocalGroups();
    auto defs = Defs();
    if (!db || !defs) return -1;
    for (size_t i = 0; i < db->size(); ++i) {
      if (db->Gid(static_cast<int>(i)) == gid && db->Reachable(static_cast<int>(i), *defs)) {
        *out = NewRecord(*db, static_cast<int>(i), TAVO_GROUP_LOCAL);
        return 0;
      }
    }
    return TAVO_ERR_SET(TAVO_ERR_NO_GROUP);
  });
}

void TAVOGroupFree(TAVO_GROUP* group) {
  if (!group) return;
  if (group->members)
    for (int i = 0; i < group->member_count; ++i) std::free(group->members[i]);
  std::free(group->members);
  std::free(group->name);
  std::free(group);
}

int TAVOGroupDescGet(const char* name, char** buf, unsigned int* size) {
  if (!name || !buf) return TAVO_ERR_SET(TAVO_ERR_ARGUMENT);
  if (TAVO_FAULT("group.desc")) return -1;
  return Guarded(-1, [&] {
    std::shared_ptr<const GroupDb> db;
    int kind;
    int i = FindReachable(name, &db, &kind);
    if (i < 0) return -1;
    std::shared_ptr<const DescDb> descs;  // keeps `desc` alive
    std::string_view desc;
    if (kind == TAVO_GROUP_LOCAL) {
      descs = Descriptions();
      if (!descs) return -1;
      desc = descs->Find(db->Name(i));
    }
    char* copy = static_cast<char*>(std::malloc(desc.size() + 1));
    if (!copy) return TAVO_ERR_SET(TAVO_ERR_NOMEM);
    if (!desc.empty()) std::memcpy(copy, desc.data(), desc.size());
    copy[desc.size()] = '\0';
    *buf = copy;
    if (size) *size = static_cast<unsigned>(desc.size());
    return 0;
  });
}

int TAVOGroupDelete(const char** names, int count) {
  if (count < 0 || (count > 0 && !names)) return TAVO_ERR_SET(TAVO_ERR_ARGUMENT);
  if (TAVO_FAULT("group.delete")) return -1;
  return Guarded(-1, [&] {
    std::vector<std::string> list;
    for (int i = 0; i < count; ++i)
      if (names[i] && *names[i]) list.emplace_back(names[i]);
    if (list.empty()) return 0;
    return DeleteGroups(list);
  });
}

int TAVOGroupTotalNum(int kind) {
  if (TAVO_FAULT("group.total")) return -1;
  return Guarded(-1, [&] {
    auto db = GroupsOfKind(kind);
    if (!db) return -1;
    if (kind != TAVO_GROUP_LOCAL) return static_cast<int>(db->size());
    auto defs = Defs();
    if (!defs) return -1;
    return static_cast<int>(db->CountReachable(*defs));
  });
}

int TAVOGroupIsAdminGroup(const char* name) {
  if (!name) return TAVO_ERR_SET(TAVO_ERR_ARGUMENT);
  return Guarded(-1, [&] { return FoldCase(name) == "administrators" ? 1 : 0; });
}

int TLIBGroupInfoEnumBySubstr(int kind, const char* domain_name, int offset, int limit,
                              const char* substr, int flag, TLIB_GROUP_INFO_CB cb, void* ctx) {
  if (offset < 0 || limit < -1) return TAVO_ERR_SET(TAVO_ERR_ARGUMENT);
  if (TAVO_FAULT("group.enum")) return -1;
  return Guarded(-1, [&] {
    // The callback's own lookups see the same snapshots as the enumeration.
    SnapshotPin pin;
    // The directories' copies change with their state, which no snapshot tracks.
    if (kind != TAVO_GROUP_LOCAL) internal::MarkNotReusable();
    auto db = GroupsOfKind(kind);
    if (!db) return -1;
    std::shared_ptr<const LoginDefs> defs;
    if (kind == TAVO_GROUP_LOCAL && !(defs = Defs())) return -1;
    const std::string domain = domain_name ? domain_name : "";
    const std::string needle = substr ? substr : "";
    const std::string folded_needle = FoldCase(needle);
    const bool filtered = !needle.empty() || (kind == TAVO_GROUP_DOMAIN && !domain.empty());
    // NUL-terminated copies of one group's name and members at a time.
    std::string name_buf, member_buf;
    std::vector<const char*> members;
    std::vector<size_t> starts;
    auto deliver = [&](int idx, int pos) {
      tavo::NoticeWork();
      name_buf.assign(db->Name(idx));
      member_buf.clear();
      starts.clear();
      ForEachMember(db->MemberList(idx), [&](std::string_view m) {
        starts.push_back(member_buf.size());
        member_buf.append(m.data(), m.size());
        member_buf.push_back('\0');
      });
      members.clear();
      for (size_t s : starts) members.push_back(member_buf.data() + s);
      members.push_back(nullptr);
      TLIB_GROUP_INFO info{name_buf.c_str(), db->Gid(idx), members.data()};
      TLIBCErrClear();
      if (cb(&info, pos - offset, ctx) >= 0) return true;
      // Keep the error the callback's own platform call left, if any.
      if (TLIBCErrGet() == TAVO_ERR_NONE) ACCT_ERR(TAVO_ERR_FAULT);
      return false;
    };
    const long long end =
        limit == -1 ? static_cast<long long>(db->size()) : static_cast<long long>(offset) + limit;
    if (!filtered) {  // the page is a slice of the order
      size_t total = 0;
      const size_t want = cb ? static_cast<size_t>(std::min<long long>(end, db->size())) : 0;
      const std::shared_ptr<const std::vector<int>> order = db->Head(want, defs.get(), &total);
      const long long head = static_cast<long long>(std::min(want, order->size()));
      for (long long pos = offset; pos < head; ++pos)
        if (!deliver((*order)[pos], static_cast<int>(pos))) return -1;
      return static_cast<int>(total);
    }
    std::shared_ptr<const std::vector<int>> reachable;
    if (defs) reachable = db->SortedReachable(*defs);
    const std::vector<int>& order = reachable ? *reachable : db->Sorted();
    int matched = 0;
    for (int idx : order) {
      const std::string_view name = db->Name(idx);
      if (kind == TAVO_GROUP_DOMAIN && !MatchesDomain(std::string(name), domain)) continue;
      if (!needle.empty()) {
        bool hit = flag == 1 ? db->Folded(idx).find(folded_needle) != std::string_view::npos
                             : name.find(needle) != std::string_view::npos;
        if (!hit) continue;
      }
      int pos = matched++;
      if (!cb || pos < offset || pos >= end) continue;
      if (!deliver(idx, pos)) return -1;
    }
    return matched;
  });
}

}  // extern "C"
