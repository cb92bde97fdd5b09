// The parsed account files as shared, immutable snapshots with lookup indexes.
//
// Each accessor returns the snapshot of one file inside the current root as it
// is now (see snapshot.h): ROOT/etc/group, the domain and LDAP group lists,
// ROOT/etc/passwd, ROOT/etc/shadow, ROOT/etc/login.defs and the description
// file ROOT/etc/tavo/group_desc.
//
// A snapshot holds the file's bytes once (FileBytes: in memory of its own,
// or, in a one-off process, the file's pages mapped); names and fields handed
// out are views into them (std::string_view), valid while the snapshot is
// held.
// Memory: about the file's size plus 40 to 70 bytes a line for the records
// and the name index.
//
// Ownership: snapshots are shared; hold the pointer for as long as you use
// anything inside it. Thread-safety: any thread. Errors: accessors return null
// with the error state set (TAVO_ERR_IO when a required file cannot be read
// or is 1 GiB or more, TAVO_ERR_NOMEM); optional files (shadow, login.defs,
// lists, descriptions) that are missing read as empty.
#ifndef TAVO_PLATFORM_ACCOUNT_DB_H_
#define TAVO_PLATFORM_ACCOUNT_DB_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "accounts/snapshot/account_files.h"
#include "accounts/snapshot/file_bytes.h"
#include "accounts/snapshot/name_index.h"

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

// One account file held once: its bytes, and per parsed line a record of
// 32-bit offsets into them (no copies of names or fields), plus a name index.
// Neither copied nor moved (the records point into the bytes). Entries are
// numbered in file order; lines that do not parse are not entries.

class GroupDb {
 public:
  explicit GroupDb(FileBytes text);
  GroupDb(const GroupDb&) = delete;
  GroupDb& operator=(const GroupDb&) = delete;

  size_t size() const { return recs_.size(); }
  std::string_view Text() const { return text_.view(); }
  const FileBytes& Bytes() const { return text_; }
  std::string_view Name(int i) const { return View(recs_[i].line, recs_[i].name_len); }
  std::string_view Folded(int i) const { return index_.Folded(i); }
  unsigned Gid(int i) const { return recs_[i].gid; }
  std::string_view MemberList(int i) const {
    return View(recs_[i].members_off, recs_[i].members_len);
  }
  std::vector<std::string> Members(int i) const;
  GroupLine Line(int i) const;  // a copy of the parsed line
  bool Builtin(int i) const { return builtin_[i] != 0; }
  // Byte offsets of group `i`'s line in Text(), its newline not included.
  size_t LineBegin(int i) const { return recs_[i].line; }
  size_t LineEnd(int i) const;
  // The first group spelt exactly `name` (the line the account tools edit). -1 if none.
  int FindExact(std::string_view name) const;
  // The name fields of lines that are not entries (they do not parse) but
  // still hold their name for the account tools (views into Text()).
  std::vector<std::string_view> UnparsedNames() const;
  // The group named `name`: the exact spelling wins, then a case variant. -1 if none.
  int Find(std::string_view name) const { return index_.Find(name); }
  // Calls f(i) for every group whose folded name is `folded`, in file order.
  template <typename F>
  void ForEachVariant(std::string_view folded, F&& f) const {
    index_.ForEachVariant(folded, std::forward<F>(f));
  }
  // Built-ins and groups with GID >= GID_MIN; system groups are not.
  bool Reachable(int i, const LoginDefs& defs) const {
    return recs_[i].gid >= defs.gid_min || builtin_[i];
  }
  // Indexes ordered by folded name, then name, then file order; built on first use (only
  // listings need it), safely from any thread.
  const std::vector<int>& Sorted() const;
  // The reachable groups under `defs` in the order of Sorted(). Built once per
  // GID_MIN and kept (a listing page is then a slice of it); any thread.
  std::shared_ptr<const std::vector<int>> SortedReachable(const LoginDefs& defs) const;
  // The number of reachable groups under `defs`: the length of the kept
  // order when there is one, else counted without sorting anything.
  size_t CountReachable(const LoginDefs& defs) const;
  // The first `count` entries of SortedReachable(*defs), or of Sorted() when
  // `defs` is null, as the first min(count, size()) entries of the vector
  // returned (which may hold more), and in `total` the length of that order.
  // The first call on a snapshot with a short head selects it without sorting
  // everything (a one-off reader, such as a command-line call, needs no
  // more); later calls build the whole order once and share it, uncopied.
  // The result may point into this snapshot: keep the snapshot while using it.
  std::shared_ptr<const std::vector<int>> Head(size_t count, const LoginDefs* defs,
                                               size_t* total) const;

  // The snapshot of `text`, which is Text() with group `i`'s line replaced by
  // a line of the same name, GID and password (a change of members alone):
  // the entries and indexes are carried over, shifted, without parsing the
  // file again. Null when the new line is not such a line.
  std::shared_ptr<GroupDb> WithMembersChanged(int i, std::string text) const;
  // The snapshot of `text`, which is Text() with one group line appended (a
  // creation; a newline first when Text() lacks a last one): the entries,
  // indexes and kept orders are carried over with the new group put in
  // place. Null when the added bytes are not one line that parses.
  std::shared_ptr<GroupDb> WithLineAppended(std::string text) const;

 private:
  struct Rec {
    uint32_t line, name_len, members_off, members_len, gid;
  };
  GroupDb(const GroupDb& old, int i, std::string text);
  struct Appended {
    uint32_t begin, end;  // the new line's bytes
  };
  GroupDb(const GroupDb& old, std::string text, Appended line);
  std::string_view View(uint32_t off, uint32_t len) const {
    return std::string_view(text_.data() + off, len);
  }
  bool Parse(uint32_t begin, uint32_t end, Rec* rec) const;
  const FileBytes text_;
  std::vector<Rec> recs_;
  std::vector<char> builtin_;
  std::vector<TextSpan> unparsed_;
  NameIndex index_;
  mutable std::atomic<unsigned> heads_{0};
  mutable std::once_flag sorted_once_;
  mutable std::vector<int> sorted_;
  mutable std::mutex reachable_mu_;
  mutable unsigned reachable_gid_min_ = 0;
  mutable std::shared_ptr<const std::vector<int>> reachable_;  // guarded by reachable_mu_
};

class UserDb {
 public:
  explicit UserDb(FileBytes text);
  UserDb(const UserDb&) = delete;
  UserDb& operator=(const UserDb&) = delete;

  size_t size() const { return recs_.size(); }
  std::string_view Name(int i) const { return View(recs_[i].line, recs_[i].name_len); }
  std::string_view Password(int i) const {
    return View(recs_[i].line + recs_[i].name_len + 1, recs_[i].pw_len);
  }
  std::string_view Gecos(int i) const { return View(recs_[i].gecos_off, recs_[i].gecos_len); }
  unsigned Uid(int i) const { return recs_[i].uid; }
  unsigned Gid(int i) const { return recs_[i].gid; }
  // Local users: UID_MIN <= uid <= UID_MAX, except "nobody".
  bool IsLocal(int i, const LoginDefs& defs) const {
    return recs_[i].uid >= defs.uid_min && recs_[i].uid <= defs.uid_max && Name(i) != "nobody";
  }
  int Find(std::string_view name) const { return index_.Find(name); }
  template <typename F>
  void ForEachVariant(std::string_view folded, F&& f) const {
    index_.ForEachVariant(folded, std::forward<F>(f));
  }
  // Indexes ordered by folded name, then name, then file order; built on
  // first use; any thread.
  const std::vector<int>& Sorted() const;

  // The local users in the order of Sorted().
  struct LocalOrder {
    std::vector<int> order;
  };
  // Built once per UID range and kept; any thread.
  std::shared_ptr<const LocalOrder> Local(const LoginDefs& defs) const;

 private:
  struct Rec {
    uint32_t line, name_len, pw_len, gecos_off, gecos_len, uid, gid;
  };
  std::string_view View(uint32_t off, uint32_t len) const {
    return std::string_view(text_.data() + off, len);
  }
  const FileBytes text_;
  std::vector<Rec> recs_;
  NameIndex index_;
  mutable std::once_flag sorted_once_;
  mutable std::vector<int> sorted_;
  mutable std::mutex local_mu_;
  mutable unsigned local_min_ = 0, local_max_ = 0;
  mutable std::shared_ptr<const LocalOrder> local_;  // guarded by local_mu_
};

// etc/shadow: the first line of a name counts.
class ShadowDb {
 public:
  explicit ShadowDb(FileBytes text);
  ShadowDb(const ShadowDb&) = delete;
  ShadowDb& operator=(const ShadowDb&) = delete;
  // The entry of exactly `name`; false when there is none.
  bool Find(std::string_view name, ShadowView* out) const;

 private:
  struct Rec {
    uint32_t line, name_len, hash_len;
    int32_t expire_days;
  };
  const FileBytes text_;
  std::vector<Rec> recs_;
  ExactIndex index_;
};

// The description file: "NAME:TEXT" lines, the last line of a name counts.
class DescDb {
 public:
  explicit DescDb(FileBytes text);
  DescDb(const DescDb&) = delete;
  DescDb& operator=(const DescDb&) = delete;
  // Whether a line names exactly `name`.
  bool Has(std::string_view name) const { return index_.Find(name) >= 0; }
  // The description of exactly `name` ("" when none).
  std::string_view Find(std::string_view name) const {
    int i = index_.Find(name);
    return i < 0 ? std::string_view()
                 : std::string_view(text_.data() + texts_[i].off, texts_[i].len);
  }

 private:
  const FileBytes text_;
  std::vector<TextSpan> texts_;
  ExactIndex index_;
};

std::shared_ptr<GroupDb> BuildGroupDb(FileBytes content);

std::shared_ptr<const GroupDb> LocalGroups();
// For writers under the account locks: the snapshot of etc/group as it is
// now (never a pinned one; reused when the file is unchanged), and the
// snapshot of the bytes just written.
std::shared_ptr<const GroupDb> LocalGroupsNow();
void InstallLocalGroups(std::shared_ptr<const GroupDb> db);
std::shared_ptr<const GroupDb> DomainGroups();
std::shared_ptr<const GroupDb> LdapGroups();
std::shared_ptr<const UserDb> Passwd();
std::shared_ptr<const ShadowDb> Shadow();
std::shared_ptr<const LoginDefs> Defs();
std::shared_ptr<const DescDb> Descriptions();
// For writers under the account locks: etc/tavo/group_desc as it is now.
std::shared_ptr<const DescDb> DescriptionsNow();

// A file's bytes, unparsed.
struct FileText {
  FileBytes text;
  std::string_view Text() const { return text.view(); }
  const FileBytes& Bytes() const { return text; }
};
// For writers under the account locks: etc/gshadow's bytes as they are now
// (kept between changes: a writer finds its group's line in them), whether
// the file exists, and the bytes just written.
std::shared_ptr<const FileText> GshadowNow(bool* exists);
void InstallGshadow(std::string text);

// User `i` is expired, or locked with "!" or "*" in its password field.
bool IsExpired(const UserDb& users, int i, const ShadowDb& shadow);

}  // namespace acct
}  // namespace tavo

#endif  // TAVO_PLATFORM_ACCOUNT_DB_H_
