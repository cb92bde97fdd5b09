// SDK::Group: a group loaded or created in memory, and its Save.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "accounts/group_internal.h"
#include "accounts/snapshot/names.h"
#include "tavo/group.h"
#include "tavo/testing.h"
#include "tavo/wait_notice.h"

namespace SDK {

using namespace tavo::acct;

namespace {

constexpr uint64_t kBytes = 0x0101010101010101ull;
constexpr uint64_t kHighBits = 0x8080808080808080ull;

uint64_t Mix(uint64_t h, uint64_t word) {
  h = (h ^ word) * 0x9E3779B97F4A7C15ull;
  return h ^ (h >> 29);
}

// The ASCII capitals of a word of ASCII bytes made small, all at once.
uint64_t LowerAscii(uint64_t w) {
  const uint64_t at_least_a = w + (0x80 - 'A') * kBytes;
  const uint64_t past_z = w + (0x80 - 'Z' - 1) * kBytes;
  return w | (((at_least_a & ~past_z) & kHighBits) >> 2);
}

// A hash of the bytes, eight at a time.
uint64_t Hash(const std::string& s) {
  uint64_t h = s.size();
  size_t i = 0;
  for (; i + 8 <= s.size(); i += 8) {
    uint64_t w;
    std::memcpy(&w, s.data() + i, 8);
    h = Mix(h, w);
  }
  uint64_t w = 0;
  std::memcpy(&w, s.data() + i, s.size() - i);
  return Mix(h, w);
}

// Hashes of `s` as it is and of its case-folded form, in one pass without a
// copy for ASCII text. Names are short: eight bytes a step.
void NameHashes(const std::string& s, uint64_t* exact, uint64_t* folded) {
  uint64_t h = s.size(), f = h;
  size_t i = 0;
  for (;; i += 8) {
    uint64_t w = 0;
    const size_t n = std::min<size_t>(8, s.size() - i);
    std::memcpy(&w, s.data() + i, n);
    if (w & kHighBits) {
      *exact = Hash(s);
      *folded = Hash(FoldCase(s));
      return;
    }
    h = Mix(h, w);
    f = Mix(f, LowerAscii(w));
    if (n < 8) break;
  }
  *exact = h;
  *folded = f;
}

// Finds members by exact spelling, else ignoring case, through sorted lists
// of their hashes built on first use, so that testing every user of a large
// root against a group stays linear, and a name that is no member costs its
// hashes and two binary searches of numbers (no string is compared or
// copied). Appends keep the lists; removals drop them.
class MemberIndex {
 public:
  int Find(const std::vector<std::string>& members, const std::string& user) {
    if (!built_) Build(members);
    uint64_t exact, folded;
    NameHashes(user, &exact, &folded);
    // Most names asked about are no member: one search of the folded hashes
    // tells, since a name spelled alike also folds alike.
    auto any = Lower(folded_, folded);
    if (any == folded_.end() || any->first != folded) return -1;
    // The first entry of a spelling wins, and then the first of any case:
    // entries of one hash are in member order.
    for (auto it = Lower(exact_, exact); it != exact_.end() && it->first == exact; ++it)
      if (members[it->second] == user) return it->second;
    for (auto it = any; it != folded_.end() && it->first == folded; ++it)
      if (EqualIgnoringCase(members[it->second], user)) return it->second;
    return -1;
  }
  void Appended(const std::vector<std::string>& members) {
    if (!built_) return;
    const int i = static_cast<int>(members.size()) - 1;
    uint64_t exact, folded;
    NameHashes(members[i], &exact, &folded);
    exact_.insert(std::upper_bound(exact_.begin(), exact_.end(), Entry{exact, i}), Entry{exact, i});
    folded_.insert(std::upper_bound(folded_.begin(), folded_.end(), Entry{folded, i}),
                   Entry{folded, i});
  }
  void Forget() {
    built_ = false;
    exact_.clear();
    folded_.clear();
  }

 private:
  using Entry = std::pair<uint64_t, int>;  // hash, member index
  static std::vector<Entry>::const_iterator Lower(const std::vector<Entry>& v, uint64_t hash) {
    return std::lower_bound(v.begin(), v.end(), Entry{hash, -1});
  }
  void Build(const std::vector<std::string>& members) {
    exact_.resize(members.size());
    folded_.resize(members.size());
    for (int i = 0; i < static_cast<int>(members.size()); ++i) {
      NameHashes(members[i], &exact_[i].first, &folded_[i].first);
      exact_[i].second = folded_[i].second = i;
    }
    std::sort(exact_.begin(), exact_.end());
    std::sort(folded_.begin(), folded_.end());
    built_ = true;
  }

  bool built_ = false;
  std::vector<Entry> exact_, folded_;  // sorted by hash, then member index
};

}  // namespace

struct Group::Rep {
  int kind = TAVO_GROUP_LOCAL;
  bool created = false;
  std::string orig_name;  // stored spelling at load time
  std::string name;
  unsigned gid = 0;
  std::vector<std::string> members;
  MemberIndex member_index;  // over `members`
  std::string desc;
  bool desc_loaded = true;  // a loaded group's description is read when first needed
  bool desc_changed = false;
  std::vector<std::string> added, removed;
  int pending_error = TAVO_ERR_NONE;  // a refused SetName/SetDesc fails Save

  // Reads the description of a loaded group, once.
  bool LoadDesc() {
    if (desc_loaded) return true;
    auto descs = Descriptions();
    if (!descs) return false;
    desc = DescriptionOf(*descs, orig_name);
    desc_loaded = true;
    return true;
  }
};

Group::Group(std::unique_ptr<Rep> rep) : rep_(std::move(rep)) {}
Group::~Group() = default;

namespace {

// The reason `name` cannot be a new group's name now (TAVO_ERR_NONE if it can).
int NewNameProblem(const std::string& name, const std::string& self) {
  int syntax = CheckGroupNameSyntax(name);
  if (syntax != TAVO_ERR_NONE) return syntax;
  if (IsBuiltinGroupName(name) && !EqualIgnoringCase(name, self)) return TAVO_ERR_RESERVED;
  auto db = LocalGroups();
  auto defs = Defs();
  if (!db || !defs) return TLIBCErrGet();
  int why = TAVO_ERR_NONE;
  db->ForEachVariant(FoldCase(name), [&](int i) {
    if (why != TAVO_ERR_NONE || (!self.empty() && db->Name(i) == self)) return;
    why = db->Reachable(i, *defs) ? TAVO_ERR_EXISTS : TAVO_ERR_RESERVED;
  });
  return why;
}

void Erase(std::vector<std::string>* v, const std::string& s) {
  v->erase(std::remove(v->begin(), v->end(), s), v->end());
}

}  // namespace

Group* Group::LoadGroup(const std::string& name) {
  return Guarded<Group*>(nullptr, [&]() -> Group* {
    TAVO_GROUP* rec = nullptr;
    if (TAVOGroupGet(name.c_str(), &rec) != 0) return nullptr;
    auto rep = std::make_unique<Rep>();
    rep->kind = rec->kind;
    rep->orig_name = rep->name = rec->name;
    rep->gid = rec->gid;
    for (int i = 0; i < rec->member_count; ++i) rep->members.emplace_back(rec->members[i]);
    TAVOGroupFree(rec);
    // Only local groups have descriptions; most callers never ask for one.
    rep->desc_loaded = rep->kind != TAVO_GROUP_LOCAL;
    return new Group(std::move(rep));
  });
}

Group* Group::CreateGroup(const std::string& name) {
  return Guarded<Group*>(nullptr, [&]() -> Group* {
    int why = NewNameProblem(name, "");
    if (why != TAVO_ERR_NONE) return TAVO_ERR_SET(why), nullptr;
    auto rep = std::make_unique<Rep>();
    rep->created = true;
    rep->name = name;
    return new Group(std::move(rep));
  });
}

bool Group::IsGroupExist(const std::string& name) {
  return Guarded(false, [&] {
    int kind = KindOfName(name);
    auto db = GroupsOfKind(kind);
    return db && db->Find(name) >= 0;
  });
}

void Group::Release(Group* group) { delete group; }

std::string Group::GetName() const { return rep_->name; }
std::string Group::GetDesc() const {
  return Guarded(std::string(), [&] { return rep_->LoadDesc() ? rep_->desc : std::string(); });
}
unsigned int Group::GetGID() const { return rep_->gid; }
std::vector<std::string> Group::GetMembers() const { return rep_->members; }

bool Group::IsMember(const std::string& user) const {
  tavo::NoticeWork();
  return Guarded(false, [&] { return rep_->member_index.Find(rep_->members, user) >= 0; });
}

bool Group::AddMember(const std::string& user_in) {
  return Guarded(false, [&] {
    int why = CheckMemberName(user_in);
    if (why != TAVO_ERR_NONE) return TAVO_ERR_SET(why), false;
    if (rep_->member_index.Find(rep_->members, user_in) >= 0) return true;
    // A user's own spelling, whatever the spelling asked for.
    std::string user = user_in;
    if (auto users = Passwd()) {
      int u = users->Find(user_in);
      if (u >= 0) user.assign(users->Name(u));
    }
    rep_->members.push_back(user);
    rep_->member_index.Appended(rep_->members);
    if (std::find(rep_->removed.begin(), rep_->removed.end(), user) != rep_->removed.end())
      Erase(&rep_->removed, user);
    else
      rep_->added.push_back(user);
    return true;
  });
}

bool Group::RemoveMember(const std::string& user) {
  return Guarded(false, [&] {
    int i = rep_->member_index.Find(rep_->members, user);
    if (i < 0) return ACCT_ERR(TAVO_ERR_NO_USER), false;
    std::string stored = rep_->members[i];
    Erase(&rep_->members, stored);  // also a second entry of the same name
    rep_->member_index.Forget();
    if (std::find(rep_->added.begin(), rep_->added.end(), stored) != rep_->added.end())
      Erase(&rep_->added, stored);
    else
      rep_->removed.push_back(stored);
    return true;
  });
}

bool Group::SetName(std::string& name) {
  return Guarded(false, [&] {
    if (rep_->kind != TAVO_GROUP_LOCAL) {
      rep_->pending_error = TAVO_ERR_NOT_PERMITTED;
    } else if (name == rep_->name) {
      return true;
    } else if (!rep_->created && IsBuiltinGroupName(rep_->orig_name) &&
               FoldCase(name) != FoldCase(rep_->orig_name)) {
      // The built-ins keep their names (a change of letter case is allowed).
      rep_->pending_error = TAVO_ERR_RESERVED;
    } else {
      rep_->pending_error = NewNameProblem(name, rep_->created ? "" : rep_->orig_name);
    }
    if (rep_->pending_error != TAVO_ERR_NONE) return TAVO_ERR_SET(rep_->pending_error), false;
    rep_->name = name;
    return true;
  });
}

bool Group::SetDesc(const std::string& desc) {
  return Guarded(false, [&] {
    int why = rep_->kind != TAVO_GROUP_LOCAL ? TAVO_ERR_NOT_PERMITTED : CheckDescription(desc);
    if (why != TAVO_ERR_NONE) {
      rep_->pending_error = why;
      return TAVO_ERR_SET(why), false;
    }
    if (!rep_->LoadDesc()) return false;
    if (desc != rep_->desc || rep_->created) rep_->desc_changed = true;
    rep_->desc = desc;
    return true;
  });
}

bool Group::Save() {
  if (TAVO_FAULT("group.save")) return false;
  return Guarded(false, [&] {
    if (rep_->pending_error != TAVO_ERR_NONE) return TAVO_ERR_SET(rep_->pending_error), false;
    if (rep_->kind != TAVO_GROUP_LOCAL) return ACCT_ERR(TAVO_ERR_NOT_PERMITTED), false;
    GroupChange c;
    c.create = rep_->created;
    c.orig_name = rep_->orig_name;
    c.new_name = rep_->name;
    c.desc_changed = rep_->desc_changed;
    c.desc = rep_->desc;
    c.added = rep_->added;
    c.removed = rep_->removed;
    if (!ApplyGroupChange(&c)) return false;
    // The object now stands for the saved group.
    rep_->created = false;
    rep_->orig_name = rep_->name;
    rep_->gid = c.gid_out;
    rep_->added.clear();
    rep_->removed.clear();
    rep_->desc_changed = false;
    return true;
  });
}

}  // namespace SDK
