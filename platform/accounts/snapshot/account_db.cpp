// Snapshots of the account files and their indexes.
#include "accounts/snapshot/account_db.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <ctime>

#include "accounts/snapshot/names.h"
#include "accounts/snapshot/snapshot.h"

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

// Orders entry numbers by folded name, then name, then file order.
template <typename Db>
struct ByFoldedName {
  const Db& db;
  const NameIndex& index;
  bool operator()(int a, int b) const {
    const std::string_view fa = index.Folded(a), fb = index.Folded(b);
    if (fa != fb) return fa < fb;
    const std::string_view na = db.Name(a), nb = db.Name(b);
    if (na != nb) return na < nb;
    return a < b;  // the same name twice: file order, so every sort agrees
  }
};

template <typename Db>
std::vector<int> SortByFoldedName(const Db& db, const NameIndex& index) {
  std::vector<int> order(db.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = static_cast<int>(i);
  std::sort(order.begin(), order.end(), ByFoldedName<Db>{db, index});
  return order;
}

// The number of lines of `text` (an upper bound of its entries).
size_t CountLines(std::string_view text) {
  // memchr finds newlines many bytes at a time; a byte loop costs about a
  // millisecond a megabyte.
  size_t n = 1;
  const char* p = text.data();
  const char* const end = p + text.size();
  while ((p = static_cast<const char*>(std::memchr(p, '\n', static_cast<size_t>(end - p)))) !=
         nullptr) {
    ++n;
    ++p;
  }
  return n;
}

// The offset of view `v` in `text`.
uint32_t Off(std::string_view text, std::string_view v) {
  return static_cast<uint32_t>(v.data() - text.data());
}
uint32_t Len(std::string_view v) { return static_cast<uint32_t>(v.size()); }

}  // namespace

bool GroupDb::Parse(uint32_t begin, uint32_t end, Rec* rec) const {
  GroupView g;
  if (!ParseGroupView(std::string_view(text_).substr(begin, end - begin), &g)) return false;
  *rec = Rec{Off(text_, g.name), Len(g.name), Off(text_, g.members), Len(g.members), g.gid};
  return true;
}

GroupDb::GroupDb(FileBytes text) : text_(std::move(text)) {
  std::vector<TextSpan> names;
  ReservePrefaulted(&names, CountLines(text_));
  ReservePrefaulted(&recs_, names.capacity());
  ForEachLine(text_, [&](std::string_view line) {
    Rec r;
    const uint32_t begin = Off(text_, line);
    if (Parse(begin, begin + Len(line), &r)) {
      recs_.push_back(r);
      names.push_back(TextSpan{r.line, r.name_len});
    } else if (!line.empty() && line[0] != '#') {
      unparsed_.push_back(TextSpan{begin, Len(line.substr(0, line.find(':')))});
    }
  });
  index_.Build(text_.data(), std::move(names));
  builtin_.resize(recs_.size());
  for (size_t i = 0; i < recs_.size(); ++i) {
    const std::string_view f = index_.Folded(static_cast<int>(i));
    builtin_[i] = f == "administrators" || f == "users";
  }
}

GroupDb::GroupDb(const GroupDb& old, int i, std::string text)
    : text_(std::move(text)), builtin_(old.builtin_) {
  // Bytes before the end of the changed line stay where they were; bytes
  // after it moved by the difference in length.
  const uint32_t begin = old.recs_[i].line;
  const uint32_t old_end = static_cast<uint32_t>(old.LineEnd(i));
  const size_t nl = text_.find('\n', begin);
  const uint32_t new_end = static_cast<uint32_t>(nl == std::string::npos ? text_.size() : nl);
  const int64_t shift = static_cast<int64_t>(new_end) - old_end;
  auto moved = [&](uint32_t off) {
    return off >= old_end ? static_cast<uint32_t>(off + shift) : off;
  };
  ReservePrefaulted(&recs_, old.recs_.size());
  for (const Rec& o : old.recs_)
    recs_.push_back(Rec{moved(o.line), o.name_len, moved(o.members_off), o.members_len, o.gid});
  Parse(begin, new_end, &recs_[i]);
  for (TextSpan s : old.unparsed_) unparsed_.push_back(TextSpan{moved(s.off), s.len});
  index_.CopyShifted(old.index_, text_.data(), old_end, shift);
  // The order of the names is the same.
  if (old.heads_.load() > 0) heads_.store(1);
  std::lock_guard<std::mutex> lock(old.reachable_mu_);
  if (old.reachable_) {
    sorted_ = old.Sorted();
    std::call_once(sorted_once_, [] {});
    reachable_ = old.reachable_;
    reachable_gid_min_ = old.reachable_gid_min_;
  }
}

std::shared_ptr<GroupDb> GroupDb::WithMembersChanged(int i, std::string text) const {
  // Checked cheaply: the bytes after the line are as many as before, and the
  // new line is the same group's. (The caller built `text` from Text().)
  const size_t begin = LineBegin(i), old_end = LineEnd(i);
  if (text.size() < begin || text.size() >= kMaxSnapshotBytes) return nullptr;
  size_t end = text.find('\n', begin);
  if (end == std::string::npos) end = text.size();
  GroupView now;
  if (text.size() - end != text_.size() - old_end ||
      !ParseGroupView(std::string_view(text).substr(begin, end - begin), &now) ||
      now.name != Name(i) || now.gid != recs_[i].gid || now.password != Line(i).password)
    return nullptr;
  return std::shared_ptr<GroupDb>(new GroupDb(*this, i, std::move(text)));
}

std::shared_ptr<GroupDb> GroupDb::WithLineAppended(std::string text) const {
  const size_t n = text_.size();
  if (text.size() <= n || text.size() >= kMaxSnapshotBytes) return nullptr;
  // Checked cheaply: the old bytes end as they did (the caller built `text`
  // from Text()), and one whole line follows them.
  const size_t tail = std::min<size_t>(n, 64);
  if (text.compare(n - tail, tail, text_.view(), n - tail, tail) != 0) return nullptr;
  size_t begin = n;
  if (n > 0 && text_[n - 1] != '\n') {
    if (text[n] != '\n') return nullptr;
    begin = n + 1;
  }
  size_t end = text.find('\n', begin);
  if (end == std::string::npos) end = text.size();
  GroupView g;
  if (end + 1 < text.size() ||
      !ParseGroupView(std::string_view(text).substr(begin, end - begin), &g))
    return nullptr;
  return std::shared_ptr<GroupDb>(new GroupDb(
      *this, std::move(text), Appended{static_cast<uint32_t>(begin), static_cast<uint32_t>(end)}));
}

GroupDb::GroupDb(const GroupDb& old, std::string text, Appended line)
    : text_(std::move(text)), recs_(old.recs_), builtin_(old.builtin_), unparsed_(old.unparsed_) {
  Rec r;
  Parse(line.begin, line.end, &r);  // checked by WithLineAppended
  recs_.push_back(r);
  const int added = static_cast<int>(recs_.size()) - 1;
  index_.CopyAppended(old.index_, text_.data(), TextSpan{r.line, r.name_len});
  const std::string_view f = index_.Folded(added);
  builtin_.push_back(f == "administrators" || f == "users");
  if (old.heads_.load() > 0) heads_.store(1);
  // The kept orders take the new group at its place (after its equals: it
  // comes last in the file).
  std::lock_guard<std::mutex> lock(old.reachable_mu_);
  if (!old.reachable_) return;
  const ByFoldedName<GroupDb> less{*this, index_};
  sorted_ = old.Sorted();
  sorted_.insert(std::upper_bound(sorted_.begin(), sorted_.end(), added, less), added);
  std::call_once(sorted_once_, [] {});
  auto reachable = std::make_shared<std::vector<int>>(*old.reachable_);
  if (recs_[added].gid >= old.reachable_gid_min_ || builtin_[added])
    reachable->insert(std::upper_bound(reachable->begin(), reachable->end(), added, less), added);
  reachable_ = std::move(reachable);
  reachable_gid_min_ = old.reachable_gid_min_;
}

size_t GroupDb::LineEnd(int i) const {
  const size_t nl = text_.find('\n', LineBegin(i));
  return nl == std::string::npos ? text_.size() : nl;
}

int GroupDb::FindExact(std::string_view name) const {
  int found = -1;
  // The variants of the name come in file order; the first exact one wins.
  index_.ForEachVariant(FoldCase(std::string(name)), [&](int k) {
    if (found < 0 && Name(k) == name) found = k;
  });
  return found;
}

std::vector<std::string_view> GroupDb::UnparsedNames() const {
  std::vector<std::string_view> out;
  for (TextSpan s : unparsed_) out.push_back(View(s.off, s.len));
  return out;
}

std::vector<std::string> GroupDb::Members(int i) const {
  std::vector<std::string> out;
  ForEachMember(MemberList(i), [&](std::string_view m) { out.emplace_back(m); });
  return out;
}

GroupLine GroupDb::Line(int i) const {
  const Rec& r = recs_[i];
  GroupLine g;
  g.name.assign(Name(i));
  // The password field lies between the name and the GID.
  const uint32_t pw = r.line + r.name_len + 1;
  g.password.assign(text_.view().substr(pw, text_.find(':', pw) - pw));
  g.gid = r.gid;
  g.members = Members(i);
  return g;
}

const std::vector<int>& GroupDb::Sorted() const {
  std::call_once(sorted_once_, [this] { sorted_ = SortByFoldedName(*this, index_); });
  return sorted_;
}

std::shared_ptr<const std::vector<int>> GroupDb::SortedReachable(const LoginDefs& defs) const {
  {
    std::lock_guard<std::mutex> lock(reachable_mu_);
    if (reachable_ && reachable_gid_min_ == defs.gid_min) return reachable_;
  }
  auto list = std::make_shared<std::vector<int>>();
  list->reserve(size());
  for (int idx : Sorted())
    if (Reachable(idx, defs)) list->push_back(idx);
  std::lock_guard<std::mutex> lock(reachable_mu_);
  reachable_ = list;
  reachable_gid_min_ = defs.gid_min;
  return list;
}

size_t GroupDb::CountReachable(const LoginDefs& defs) const {
  {
    std::lock_guard<std::mutex> lock(reachable_mu_);
    if (reachable_ && reachable_gid_min_ == defs.gid_min) return reachable_->size();
  }
  size_t n = 0;
  for (size_t i = 0; i < size(); ++i) n += Reachable(static_cast<int>(i), defs) ? 1 : 0;
  return n;
}

std::shared_ptr<const std::vector<int>> GroupDb::Head(size_t count, const LoginDefs* defs,
                                                      size_t* total) const {
  if (heads_.fetch_add(1) == 0 && count < size() / 4) {
    auto owned = std::make_shared<std::vector<int>>();
    std::vector<int>& head = *owned;
    head.reserve(size());
    for (size_t i = 0; i < size(); ++i)
      if (!defs || Reachable(static_cast<int>(i), *defs)) head.push_back(static_cast<int>(i));
    *total = head.size();
    const size_t k = std::min(count, head.size());
    std::partial_sort(head.begin(), head.begin() + k, head.end(),
                      ByFoldedName<GroupDb>{*this, index_});
    head.resize(k);
    return owned;
  }
  if (defs) {
    std::shared_ptr<const std::vector<int>> reachable = SortedReachable(*defs);
    *total = reachable->size();
    return reachable;
  }
  // Sorted() lives as long as this snapshot (see above).
  const std::vector<int>& order = Sorted();
  *total = order.size();
  return std::shared_ptr<const std::vector<int>>(std::shared_ptr<const void>(), &order);
}

UserDb::UserDb(FileBytes text) : text_(std::move(text)) {
  std::vector<TextSpan> names;
  ReservePrefaulted(&names, CountLines(text_));
  ReservePrefaulted(&recs_, names.capacity());
  ForEachLine(text_, [&](std::string_view line) {
    PasswdView u;
    if (!ParsePasswdView(line, &u)) return;
    recs_.push_back(Rec{Off(text_, u.name), Len(u.name), Len(u.password), Off(text_, u.gecos),
                        Len(u.gecos), u.uid, u.gid});
    names.push_back(TextSpan{recs_.back().line, recs_.back().name_len});
  });
  index_.Build(text_.data(), std::move(names));
}

const std::vector<int>& UserDb::Sorted() const {
  std::call_once(sorted_once_, [this] { sorted_ = SortByFoldedName(*this, index_); });
  return sorted_;
}

std::shared_ptr<const UserDb::LocalOrder> UserDb::Local(const LoginDefs& defs) const {
  {
    std::lock_guard<std::mutex> lock(local_mu_);
    if (local_ && local_min_ == defs.uid_min && local_max_ == defs.uid_max) return local_;
  }
  auto local = std::make_shared<LocalOrder>();
  for (int idx : Sorted())
    if (IsLocal(idx, defs)) local->order.push_back(idx);
  std::lock_guard<std::mutex> lock(local_mu_);
  local_ = local;
  local_min_ = defs.uid_min;
  local_max_ = defs.uid_max;
  return local;
}

ShadowDb::ShadowDb(FileBytes text) : text_(std::move(text)) {
  std::vector<TextSpan> names;
  ReservePrefaulted(&names, CountLines(text_));
  ReservePrefaulted(&recs_, names.capacity());
  ForEachLine(text_, [&](std::string_view line) {
    ShadowView s;
    if (!ParseShadowView(line, &s)) return;
    const long expire = s.expire_days > INT32_MAX ? INT32_MAX : s.expire_days;
    recs_.push_back(
        Rec{Off(text_, s.name), Len(s.name), Len(s.hash), static_cast<int32_t>(expire)});
    names.push_back(TextSpan{recs_.back().line, recs_.back().name_len});
  });
  index_.Build(text_.data(), std::move(names), /*last_wins=*/false);
}

bool ShadowDb::Find(std::string_view name, ShadowView* out) const {
  const int i = index_.Find(name);
  if (i < 0) return false;
  const Rec& r = recs_[i];
  out->name = std::string_view(text_.data() + r.line, r.name_len);
  out->hash = std::string_view(text_.data() + r.line + r.name_len + 1, r.hash_len);
  out->expire_days = r.expire_days;
  return true;
}

DescDb::DescDb(FileBytes text) : text_(std::move(text)) {
  std::vector<TextSpan> names;
  ReservePrefaulted(&names, CountLines(text_));
  ReservePrefaulted(&texts_, names.capacity());
  ForEachLine(text_, [&](std::string_view line) {
    std::string_view name, desc;
    if (!ParseDescView(line, &name, &desc)) return;
    names.push_back(TextSpan{Off(text_, name), Len(name)});
    texts_.push_back(TextSpan{Off(text_, desc), Len(desc)});
  });
  index_.Build(text_.data(), std::move(names), /*last_wins=*/true);
}

bool IsExpired(const UserDb& users, int i, const ShadowDb& shadow) {
  ShadowView s;
  const bool found = shadow.Find(users.Name(i), &s);
  const std::string_view hash = found ? s.hash : users.Password(i);
  if (!hash.empty() && (hash[0] == '!' || hash[0] == '*')) return true;
  if (!found || s.expire_days < 0) return false;
  internal::MarkClockRead();  // the answer depends on the day
  long today = static_cast<long>(std::time(nullptr) / 86400);
  return s.expire_days <= today;
}

}  // namespace acct
}  // namespace tavo
