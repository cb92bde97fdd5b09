// Users: SDK::User, the user enumerators, expiry, the administrators' counts
// and the password check. Local users are the passwd entries in
// UID_MIN..UID_MAX except "nobody" (account_db.h).
#include <crypt.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>

#include "accounts/group_internal.h"
#include "accounts/snapshot/names.h"
#include "core/szlist_internal.h"
#include "tavo/group.h"
#include "tavo/testing.h"
#include "tavo/user.h"
#include "tavo/wait_notice.h"

namespace tavo {
namespace acct {
namespace {

constexpr int kUnknown = -1;
constexpr int kAmbiguous = -2;

// The one passwd entry that `name` stands for: the entry spelt exactly so,
// else the only entry whose name equals it ignoring case. kUnknown when there
// is none, kAmbiguous when several case variants match and none exactly (a
// name never stands for two accounts, so nothing is guessed).
int ResolveUser(const UserDb& users, const std::string& name) {
  int exact = -1, first = -1;
  bool several = false;
  users.ForEachVariant(FoldCase(name), [&](int k) {
    if (exact < 0 && users.Name(k) == name) exact = k;
    if (first < 0)
      first = k;
    else if (users.Name(k) != users.Name(first))
      several = true;
  });
  if (exact >= 0) return exact;
  if (first < 0) return kUnknown;
  return several ? kAmbiguous : first;
}

// The index of the local user that `name` stands for, or -1 (unknown,
// ambiguous or a system account).
int FindLocalUser(const UserDb& users, const LoginDefs& defs, const std::string& name) {
  int i = ResolveUser(users, name);
  return i >= 0 && users.IsLocal(i, defs) ? i : -1;
}

bool UsableHash(const std::string& hash) {
  return !hash.empty() && hash[0] != '!' && hash[0] != '*' && hash != "x";
}

// The stored password hash of entry `u` (shadow first, else passwd).
std::string HashOf(const UserDb& users, int i, const ShadowDb& shadow) {
  ShadowView s;
  return std::string(shadow.Find(users.Name(i), &s) ? s.hash : users.Password(i));
}

// What the enumerators hand out: NUL-terminated copies of one user's fields.
struct UserFields {
  std::string name, gecos;
  unsigned uid = 0;
};

// Calls `visit` for each local user ordered by name ignoring case whose name
// contains `substr`. Stops when `visit` returns false.
template <typename Visit>
bool ForEachLocalUser(const char* substr, bool ignore_case, Visit visit) {
  auto users = Passwd();
  auto defs = Defs();
  if (!users || !defs) return false;
  std::string needle = substr ? substr : "";
  UserFields u;
  for (int i : users->Sorted()) {
    NoticeWork();
    if (!users->IsLocal(i, *defs)) continue;
    u.name.assign(users->Name(i));
    if (!ContainsText(u.name, needle, ignore_case)) continue;
    u.gecos.assign(users->Gecos(i));
    u.uid = users->Uid(i);
    if (!visit(u)) break;
  }
  return true;
}

int EnumNames(TLIBC_SZLIST** list, int type, const char* substr, int match_flag) {
  if (!list || !*list || type != 1) return TAVO_ERR_SET(TAVO_ERR_ARGUMENT);
  if (TAVO_FAULT("user.enum")) return -1;
  return Guarded(-1, [&] {
    int added = 0;
    if (!substr || !*substr) {
      // Every local user: the names alone, in the kept order of local users.
      auto users = Passwd();
      auto defs = Defs();
      if (!users || !defs) return -1;
      const auto local = users->Local(*defs);
      if (::tavo::internal::SzListReserve(
              *list, (*list)->count + static_cast<int>(local->order.size())) != 0)
        return -1;
      for (int u : local->order) {
        if (::tavo::internal::SzListAdd(*list, users->Name(u)) != 0) return -1;
        ++added;
      }
      return added;
    }
    bool failed = false;
    bool ok = ForEachLocalUser(substr, match_flag == 1, [&](const UserFields& u) {
      if (TLIBCSzListAdd(list, u.name.c_str()) != 0) {
        failed = true;
        return false;
      }
      ++added;
      return true;
    });
    return ok && !failed ? added : -1;
  });
}

int EnumInfo(int type, int offset, int limit, const char* substr, int match_flag,
             TLIB_USER_INFO_CB cb, void* ctx) {
  if (type != 1 || offset < 0 || limit < -1) return TAVO_ERR_SET(TAVO_ERR_ARGUMENT);
  if (TAVO_FAULT("user.infoenum")) return -1;
  return Guarded(-1, [&] {
    int matched = 0;
    bool stopped = false;
    bool ok = ForEachLocalUser(substr, match_flag == 1, [&](const UserFields& u) {
      int pos = matched++;
      if (!cb || pos < offset || (limit != -1 && pos >= static_cast<long long>(offset) + limit))
        return true;
      TLIB_USER_INFO info{u.name.c_str(), u.uid, u.gecos.c_str()};
      TLIBCErrClear();
      if (cb(&info, pos - offset, ctx) < 0) {
        if (TLIBCErrGet() == TAVO_ERR_NONE) ACCT_ERR(TAVO_ERR_FAULT);
        stopped = true;
        return false;
      }
      return true;
    });
    return ok && !stopped ? matched : -1;
  });
}

// The members of "administrators" (empty when the group is missing).
bool AdminMembers(std::vector<std::string>* out) {
  auto db = LocalGroups();
  if (!db) return false;
  int i = db->Find("administrators");
  if (i >= 0) *out = db->Members(i);
  return true;
}

bool ConstantTimeEqual(const char* a, const char* b) {
  size_t la = std::strlen(a), lb = std::strlen(b);
  unsigned char diff = la != lb;
  for (size_t i = 0; i < la && i < lb; ++i) diff |= static_cast<unsigned char>(a[i] ^ b[i]);
  return diff == 0;
}

}  // namespace

int CountValidAdmins(const std::vector<std::string>& members) {
  auto users = Passwd();
  auto defs = Defs();
  auto shadow = Shadow();
  if (!users || !defs || !shadow) return -1;
  std::vector<int> valid;  // each user once, however often listed
  for (const std::string& m : members) {
    int i = FindLocalUser(*users, *defs, m);
    if (i >= 0 && !IsExpired(*users, i, *shadow) &&
        std::find(valid.begin(), valid.end(), i) == valid.end())
      valid.push_back(i);
  }
  return static_cast<int>(valid.size());
}

}  // namespace acct
}  // namespace tavo

using namespace tavo::acct;

extern "C" {

int TAVOUserCheckExpired(const char* name) {
  if (!name) return ACCT_ERR(TAVO_ERR_ARGUMENT), 1;
  return Guarded(1, [&] {
    auto users = Passwd();
    auto defs = Defs();
    auto shadow = Shadow();
    if (!users || !defs || !shadow) return 1;
    int i = FindLocalUser(*users, *defs, name);
    if (i < 0) return ACCT_ERR(TAVO_ERR_NO_USER), 1;
    return IsExpired(*users, i, *shadow) ? 1 : 0;
  });
}

int TLIBGroupIsAdminGroupMem(const char* user, int flag) {
  if (!user || flag != 0) return TAVO_ERR_SET(TAVO_ERR_ARGUMENT);
  return Guarded(-1, [&] {
    std::vector<std::string> members;
    auto users = Passwd();
    if (!users || !AdminMembers(&members)) return -1;
    // A listed name counts for the account it stands for, so "Admin" is not a
    // member because "admin" is listed, unless both name one account.
    const int who = ResolveUser(*users, user);
    if (who < 0) return 0;
    for (const std::string& m : members)
      if (ResolveUser(*users, m) == who) return 1;
    return 0;
  });
}

int TAVOGroupTotalValidLocalAdmin(void) {
  if (TAVO_FAULT("admin.count")) return 0;
  return Guarded(0, [&] {
    std::vector<std::string> members;
    if (!AdminMembers(&members)) return 0;
    int n = CountValidAdmins(members);
    if (n < 0) return 0;
    // No valid administrator is reported like a failure, with its own code.
    if (n == 0) ACCT_ERR(TAVO_ERR_NO_USER);
    return n;
  });
}

int TAVOUserCheckPassword(const char* name, const char* password) {
  if (!name || !password) return ACCT_ERR(TAVO_ERR_ARGUMENT), 0;
  return Guarded(-1, [&] {
    auto users = Passwd();
    auto shadow = Shadow();
    if (!users || !shadow) return -1;
    int i = ResolveUser(*users, name);
    if (i < 0) return 0;
    const std::string hash = HashOf(*users, i, *shadow);
    if (!UsableHash(hash)) return 0;
    auto data = std::make_unique<crypt_data>();
    std::memset(data.get(), 0, sizeof(crypt_data));
    const char* out = crypt_r(password, hash.c_str(), data.get());
    if (!out || out[0] == '*') return 0;
    return ConstantTimeEqual(out, hash.c_str()) ? 1 : 0;
  });
}

int TLIBUserEnum(TLIBC_SZLIST** list, int type, int flag) {
  (void)flag;
  return EnumNames(list, type, nullptr, 0);
}

int TLIBUserEnumBySubstr(TLIBC_SZLIST** list, int type, int flag, const char* substr,
                         int match_flag) {
  (void)flag;
  return EnumNames(list, type, substr, match_flag);
}

int TLIBUserInfoEnum(int type, int flag, int offset, int limit, TLIB_USER_INFO_CB cb, void* ctx) {
  (void)flag;
  return EnumInfo(type, offset, limit, nullptr, 0, cb, ctx);
}

int TLIBUserInfoEnumBySubstr(int type, int flag, int offset, int limit, const char* substr,
                             int match_flag, TLIB_USER_INFO_CB cb, void* ctx) {
  (void)flag;
  return EnumInfo(type, offset, limit, substr, match_flag, cb, ctx);
}

}  // extern "C"

namespace tavo {

UserMatch ResolveUserName(const std::string& name, UserIdentity* out) {
  return Guarded(UserMatch::kFailed, [&] {
    auto users = Passwd();
    auto defs = Defs();
    auto shadow = Shadow();
    if (!users || !defs || !shadow) return UserMatch::kFailed;
    const int i = ResolveUser(*users, name);
    if (i == kAmbiguous) return UserMatch::kAmbiguous;
    if (i < 0) return UserMatch::kUnknown;
    const std::string hash = HashOf(*users, i, *shadow);
    out->name.assign(users->Name(i));
    out->local = users->IsLocal(i, *defs);
    out->expired = !out->local || IsExpired(*users, i, *shadow);
    out->password_set = UsableHash(hash);
    char stamp[17];
    snprintf(stamp, sizeof(stamp), "%016zx", std::hash<std::string>()(hash));
    out->stamp = stamp;
    return UserMatch::kFound;
  });
}

}  // namespace tavo

namespace SDK {

struct User::Rep {
  std::string name;
  unsigned uid = 0;
  std::string desc;
};

User::User(std::unique_ptr<Rep> rep) : rep_(std::move(rep)) {}
User::~User() = default;

User* User::LoadUser(const std::string& name) {
  return Guarded<User*>(nullptr, [&]() -> User* {
    auto users = Passwd();
    auto defs = Defs();
    if (!users || !defs) return nullptr;
    int i = FindLocalUser(*users, *defs, name);
    if (i < 0) return ACCT_ERR(TAVO_ERR_NO_USER), nullptr;
    auto rep = std::make_unique<Rep>();
    rep->name.assign(users->Name(i));
    rep->uid = users->Uid(i);
    rep->desc.assign(users->Gecos(i));
    return new User(std::move(rep));
  });
}

User* User::LoadUser(int uid) {
  return Guarded<User*>(nullptr, [&]() -> User* {
    auto users = Passwd();
    auto defs = Defs();
    if (!users || !defs) return nullptr;
    for (size_t k = 0; k < users->size(); ++k) {
      const int i = static_cast<int>(k);
      if (static_cast<int>(users->Uid(i)) != uid || !users->IsLocal(i, *defs)) continue;
      auto rep = std::make_unique<Rep>();
      rep->name.assign(users->Name(i));
      rep->uid = users->Uid(i);
      rep->desc.assign(users->Gecos(i));
      return new User(std::move(rep));
    }
    return ACCT_ERR(TAVO_ERR_NO_USER), nullptr;
  });
}

bool User::IsUserExist(const std::string& name) {
  return Guarded(false, [&] {
    auto users = Passwd();
    auto defs = Defs();
    return users && defs && FindLocalUser(*users, *defs, name) >= 0;
  });
}

void User::Release(User* user) { delete user; }

std::string User::GetName() const { return rep_->name; }
unsigned int User::GetUID() const { return rep_->uid; }
std::string User::GetDesc() const { return rep_->desc; }

}  // namespace SDK
