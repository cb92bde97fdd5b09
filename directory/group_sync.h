// Synchronisation of a directory's group list into its local copy.
//
// SyncDirectory(kind) connects with the stored binding (ldap_conn.h), reads
// every group in pages, and replaces the local copy in one atomic rename, so
// readers see the old list until the new one is complete; a failure leaves the
// old copy as it was. Each attempt updates the sync state (dir_status.h) and
// writes an event-log entry (success or failure).
//
//   LDAP: entries matching group_filter (default: posixGroup, groupOfNames,
//     groupOfUniqueNames), name "cn@DOMAIN", gid from gidNumber, else a
//     stable hash of the entry's DN into idmap_range (default
//     2000000-2999999), the next free gid of the range on a collision.
//   Domain: entries of objectClass "group", name "WORKGROUP\sAMAccountName",
//     gid from gidNumber, else LOW + the RID of objectSid (idmap.h) within
//     idmap_range (default 100000-999999). While the domain list is rebuilt,
//     the pid file run/tavo/domain_group.pid holds this process's id, locked
//     (tavo::HoldPidFile); one that no live process holds is taken over.
//   Entries without a usable name (empty, ":" or control characters, "@" or
//   "\"), without a gid, or repeating a name (ignoring ASCII case) are
//   skipped and counted. Lines are "NAME:x:GID:", ordered by name.
//
// One sync per directory at a time across processes (an flock on
// var/lib/tavo/directory/KIND.lock); a second one fails at once with "already
// running".
// Thread-safety: may be called from any thread.
#ifndef TAVO_DIRECTORY_GROUP_SYNC_H_
#define TAVO_DIRECTORY_GROUP_SYNC_H_

#include <cstdint>
#include <string>

#include "directory/dir_files.h"

namespace tavo_dir {

struct SyncResult {
  bool ok = false;
  int64_t groups = 0;
  int64_t skipped = 0;
  int pages = 0;
  int64_t duration_ms = 0;
  std::string server;  // the URI that answered
  std::string error;   // when !ok
};

SyncResult SyncDirectory(Kind kind);

// The lock that serialises the syncs of one directory (and its unbinding).
// `wait` false: fails at once when another holder has it (busy() is then
// true). Released by the destructor.
class SyncLock {
 public:
  SyncLock(Kind kind, bool wait);
  ~SyncLock();
  SyncLock(const SyncLock&) = delete;
  SyncLock& operator=(const SyncLock&) = delete;
  bool held() const { return fd_ >= 0; }
  bool busy() const { return busy_; }

 private:
  int fd_ = -1;
  bool busy_ = false;
};

// The directory's domain from a base DN: its dc= parts joined by dots
// ("dc=example,dc=com" -> "example.com"); "" when it has none.
std::string DomainFromBase(const std::string& base);

}  // namespace tavo_dir

#endif  // TAVO_DIRECTORY_GROUP_SYNC_H_
