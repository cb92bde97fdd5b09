// Groups: the group object (SDK::Group) and the group database functions.
//
// Local groups live in ROOT/etc/group (and ROOT/etc/gshadow when that file
// exists); their descriptions in ROOT/etc/tavo/group_desc. Names are matched
// ignoring case (Unicode case mapping); an exact spelling wins over a case
// variant, and the stored spelling is what the platform returns.
//
// Reachable groups: the built-ins "administrators" and "users", and every group
// with GID >= GID_MIN (ROOT/etc/login.defs, default 1000). Other groups below
// GID_MIN are system groups: not listed, not counted, not loadable, not
// changeable, but their names stay taken (IsGroupExist answers true and
// creating or renaming to them fails with TAVO_ERR_RESERVED).
//
// Names in domain form ("DOMAIN\name") are read from the domain group list and
// names in directory form ("name@domain") from the LDAP group list; those groups
// can be looked up but never changed.
//
// Thread-safety: every function may be called from any thread. Reads use
// shared, immutable snapshots of the files; writes take the account tools'
// locks. An SDK::Group object belongs to one thread at a time.
// Errors: failures return -1, false or null and set the error state (error.h).
// Nothing here throws.
#ifndef TAVO_GROUP_H_
#define TAVO_GROUP_H_

#include <memory>
#include <string>
#include <vector>

// A group record returned by TAVOGroupGet/TAVOGroupGetByGID. The first two
// fields are the name and the GID. Owned by the caller; free with TAVOGroupFree.
struct TAVO_GROUP {
  char* name;  // stored spelling, NUL-terminated
  unsigned int gid;
  char** members;  // member names, terminated by a null entry (never null itself)
  int member_count;
  int kind;  // 1 local, 2 domain, 8 LDAP
};

// What the group enumerator hands to its callback. Valid only during the call.
struct TLIB_GROUP_INFO {
  const char* name;
  unsigned int gid;
  const char* const* members;  // terminated by a null entry; may be empty
};

// Enumeration callback: return 0 to go on; a negative value stops the
// enumeration, which then fails. `index` is the item's position in the page.
typedef int (*TLIB_GROUP_INFO_CB)(const TLIB_GROUP_INFO* info, int index, void* ctx);

// Group kinds.
enum { TAVO_GROUP_LOCAL = 1, TAVO_GROUP_DOMAIN = 2, TAVO_GROUP_LDAP = 8 };

extern "C" {

// Looks a group up by name (any kind, see above). 0 on success with a new record
// in *out; -1 with TAVO_ERR_NO_GROUP when there is none. *out is set to null on failure.
int TAVOGroupGet(const char* name, TAVO_GROUP** out);
// Looks a reachable local group up by GID. As TAVOGroupGet.
int TAVOGroupGetByGID(unsigned int gid, TAVO_GROUP** out);
// Frees a record. Accepts null.
void TAVOGroupFree(TAVO_GROUP* group);
// Reads a local group's description into a new malloc'ed string in *buf (the
// caller frees it), with its length in *size ("" when it has none). Fails with
// TAVO_ERR_NO_GROUP for an unknown group.
int TAVOGroupDescGet(const char* name, char** buf, unsigned int* size);
// Deletes the named local groups in one write. Groups that may not be deleted
// (unknown, system, built-in, some user's primary group) are left in place and
// do not make the call fail; the caller checks afterwards. Returns the number
// deleted, or -1 when the write itself failed (nothing changed then).
int TAVOGroupDelete(const char** names, int count);
// Number of groups of a kind (1: reachable local groups). -1 on failure.
int TAVOGroupTotalNum(int kind);
// 1 when `name` is the administrators group (ignoring case), 0 when it is not,
// -1 on failure.
int TAVOGroupIsAdminGroup(const char* name);
// Number of members of "administrators" that are local users whose accounts
// have not expired. 0 only on failure (error state set).
int TAVOGroupTotalValidLocalAdmin(void);

// Enumerates groups of `kind` (1, 2 or 8) ordered by name ignoring case, whose
// names contain `substr` (ignoring case when `flag` is 1, exactly otherwise; ""
// matches all). Skips `offset` matches, delivers at most `limit` (-1: all) to
// `cb`. `domain_name`, when not empty, keeps only domain groups of that domain
// (ignoring case). Returns the number of all matching groups, independent of
// the page, or -1 on failure (also when the callback returned a negative value;
// the error state is then TAVO_ERR_FAULT unless the callback set one).
int TLIBGroupInfoEnumBySubstr(int kind, const char* domain_name, int offset, int limit,
                              const char* substr, int flag, TLIB_GROUP_INFO_CB cb, void* ctx);

}  // extern "C"

namespace SDK {

class Group {
 public:
  // Loads a group by name (any kind). Null when absent (TAVO_ERR_NO_GROUP).
  static Group* LoadGroup(const std::string& name);
  // A new, unsaved local group. Null when the name is invalid (TAVO_ERR_BAD_VALUE),
  // reserved (TAVO_ERR_RESERVED) or taken (TAVO_ERR_EXISTS). The GID is
  // allocated by Save.
  static Group* CreateGroup(const std::string& name);
  // True when a group of that name exists, system groups included.
  static bool IsGroupExist(const std::string& name);
  // Frees an object from LoadGroup/CreateGroup. Accepts null.
  static void Release(Group* group);

  std::string GetName() const;
  // A loaded group's description is read at the first GetDesc or SetDesc
  // (most callers never need it); "" with the error state set when
  // group_desc cannot be read.
  std::string GetDesc() const;
  unsigned int GetGID() const;  // 0 for a created group before Save
  std::vector<std::string> GetMembers() const;
  // Exact match first, then ignoring case.
  bool IsMember(const std::string& user) const;
  // Change the object in memory only; Save writes them.
  bool AddMember(const std::string& user);
  bool RemoveMember(const std::string& user);
  bool SetName(std::string& name);
  bool SetDesc(const std::string& desc);
  // Applies this object's own changes (name, description, members added and
  // removed, or the whole group when created) to the files as they stand now,
  // under the account tools' locks. False with the error state on failure; the
  // files are then unchanged.
  bool Save();

  Group(const Group&) = delete;
  Group& operator=(const Group&) = delete;
  ~Group();

 private:
  struct Rep;
  explicit Group(std::unique_ptr<Rep> rep);
  std::unique_ptr<Rep> rep_;
};

}  // namespace SDK

#endif  // TAVO_GROUP_H_
