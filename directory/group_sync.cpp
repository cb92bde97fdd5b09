#include "directory/group_sync.h"

#include <fcntl.h>
#include <ldap.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>

#include "directory/dir_events.h"
#include "directory/dir_status.h"
#include "directory/group_list.h"
#include "directory/idmap.h"
#include "directory/ldap_conn.h"
#include "tavo/root.h"
#include "tavo/util.h"

namespace tavo_dir {
namespace {

const char kLdapFilter[] =
    "(|(objectClass=posixGroup)(objectClass=groupOfNames)(objectClass=groupOfUniqueNames))";
const char kDomainFilter[] = "(objectClass=group)";
const char kLdapRange[] = "2000000-2999999";
const char kDomainRange[] = "100000-999999";

// Holds the domain's pid file (in the runtime folder) with this process's
// id while the list is rebuilt; removes it when done.
class PidFile {
 public:
  bool Take(std::string* error) {
    int holder = -1;
    fd_ = tavo::HoldPidFile(kDomainPidPath, &holder, error);
    if (fd_ < 0 && holder >= 0)
      *error = "the domain group list is being rebuilt by process " + std::to_string(holder);
    return fd_ >= 0;
  }
  ~PidFile() { tavo::ReleasePidFile(kDomainPidPath, fd_); }

 private:
  int fd_ = -1;
};

bool First(const Entry& e, const char* attr, std::string* out) {
  auto it = e.find(attr);
  if (it == e.end() || it->second.empty()) return false;
  *out = it->second.front();
  return true;
}

bool ParseGid(const std::string& s, uint32_t* gid) {
  if (s.empty() || s.size() > 10) return false;
  for (char c : s)
    if (c < '0' || c > '9') return false;
  unsigned long long v = std::strtoull(s.c_str(), nullptr, 10);
  if (v >= 0xFFFFFFFFull) return false;
  *gid = static_cast<uint32_t>(v);
  return true;
}

ConnectOptions OptionsOf(Kind kind, const Binding& b) {
  ConnectOptions o;
  o.uris = SplitUris(b.Get("uri"));
  o.starttls = b.Get("tls") == "starttls";
  o.ca_file = b.Get("ca");
  o.bind_dn = b.Get("bind_dn");
  o.password = ReadSecret(kind);
  o.connect_timeout = b.GetInt("connect_timeout", 5);
  o.timeout = b.GetInt("timeout", 60);
  return o;
}

// Reads the groups and writes the local copy; the caller holds the lock.
bool ReadAndWrite(Kind kind, const Binding& b, SyncResult* r) {
  LdapConn conn;
  if (!conn.Open(OptionsOf(kind, b), &r->error)) return false;
  r->server = conn.server();
  bool ldap = kind == Kind::kLdap;
  uint32_t low = 0, high = 0;
  std::string range = b.Get("idmap_range", ldap ? kLdapRange : kDomainRange);
  if (!ParseIdRange(range, &low, &high)) {
    r->error = "bad idmap_range '" + range + "'";
    return false;
  }
  GroupListBuilder list(ldap ? "" : b.name + "\\", ldap ? "@" + b.name : "", "@\\");
  std::vector<std::string> attrs =
      ldap ? std::vector<std::string>{"cn", "gidNumber"}
           : std::vector<std::string>{"sAMAccountName", "gidNumber", "objectSid"};
  auto on_entry = [&](const std::string& dn, const Entry& e) {
    std::string name, gid_text, sid;
    if (!First(e, ldap ? "cn" : "samaccountname", &name)) {
      list.Skip();
      return true;
    }
    uint32_t gid = 0, rid = 0;
    bool has_gid = First(e, "gidnumber", &gid_text) && ParseGid(gid_text, &gid);
    if (!has_gid && !ldap) {
      // Domain: the RID mapping, or no gid at all.
      if (!First(e, "objectsid", &sid) || !SidRid(sid, &rid, nullptr) ||
          !RidToGid(rid, low, high, &gid)) {
        list.Skip();
        return true;
      }
      has_gid = true;
    }
    list.Add(name, has_gid, gid, dn);
    return true;
  };
  std::string filter = b.Get("group_filter", ldap ? kLdapFilter : kDomainFilter);
  if (!conn.PagedSearch(b.Get("base"), filter, attrs, b.GetInt("page_size", 1000), on_entry,
                        &r->pages, &r->error))
    return false;
  std::string content = list.Build(ldap ? low : 0, high);
  r->groups = list.groups();
  r->skipped = list.skipped();
  return ReplaceFile(tavo::TavoRootPath(GroupListPath(kind)), content, 0644, &r->error,
                     ldap ? 0700 : 0755);
}

}  // namespace

SyncLock::SyncLock(Kind kind, bool wait) {
  // In the service's own state folder, not in a /tmp that others can write.
  std::string path =
      tavo::TavoRootPath(std::string("/var/lib/tavo/directory/") + KindName(kind) + ".lock");
  std::string ignored;
  if (MakeFolders(path, &ignored))
    fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd_ < 0) return;
  int rc;
  do {
    rc = flock(fd_, LOCK_EX | (wait ? 0 : LOCK_NB));
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    busy_ = errno == EWOULDBLOCK;
    close(fd_);
    fd_ = -1;
  }
}

SyncLock::~SyncLock() {
  if (fd_ >= 0) close(fd_);
}

std::string DomainFromBase(const std::string& base) {
  LDAPDN dn = nullptr;
  if (ldap_str2dn(base.c_str(), &dn, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS) return "";
  std::string out;
  for (int i = 0; dn && dn[i]; ++i) {
    LDAPRDN rdn = dn[i];
    if (!rdn[0] || rdn[1]) continue;  // multi-valued RDNs are not domain parts
    std::string type(rdn[0]->la_attr.bv_val, rdn[0]->la_attr.bv_len);
    if (type != "dc" && type != "DC" && type != "Dc" && type != "dC") continue;
    if (!out.empty()) out += '.';
    out.append(rdn[0]->la_value.bv_val, rdn[0]->la_value.bv_len);
  }
  ldap_dnfree(dn);
  return out;
}

SyncResult SyncDirectory(Kind kind) {
  SyncResult r;
  Binding b;
  if (!ReadBinding(kind, &b, &r.error)) return r;
  SyncLock lock(kind, false);
  if (!lock.held()) {
    r.error = lock.busy() ? "a synchronisation is already running" : "cannot take the sync lock";
    return r;
  }
  auto start = std::chrono::steady_clock::now();
  {
    PidFile pid;
    if (kind == Kind::kLdap || pid.Take(&r.error)) r.ok = ReadAndWrite(kind, b, &r);
  }
  r.duration_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::steady_clock::now() - start)
                      .count();
  SyncState st = ReadSyncState(kind);
  int64_t now = static_cast<int64_t>(time(nullptr));
  if (!r.server.empty()) st.server = r.server;
  if (r.ok) {
    st.last_sync = now;
    st.groups = r.groups;
    st.skipped = r.skipped;
    st.duration_ms = r.duration_ms;
    LogSyncDone(kind, b.name, r.groups, r.server, r.duration_ms);
  } else {
    st.last_error_time = now;
    st.last_error = r.error;
    LogSyncFailed(kind, b.name, r.error);
  }
  std::string ignored;
  WriteSyncState(kind, st, &ignored);
  return r;
}

}  // namespace tavo_dir
