#include "directory/dir_admin.h"

#include <cctype>

#include "directory/dir_events.h"
#include "directory/dir_status.h"
#include "directory/group_sync.h"
#include "directory/idmap.h"
#include "directory/ldap_conn.h"

namespace tavo_dir {
namespace {

bool PlainToken(const std::string& s) {
  if (s.empty()) return false;
  for (unsigned char c : s)
    if (c <= 0x20 || c == 0x7F || c == ':' || c == '@' || c == '\\' || c == '/') return false;
  return true;
}

bool OneLine(const std::string& s) { return s.find_first_of("\r\n") == std::string::npos; }

std::string Upper(std::string s) {
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

// Checks the request and fills the stored form of the binding.
bool Prepare(Kind kind, const BindRequest& rq, Binding* b, std::string* error) {
  std::vector<std::string> uris = SplitUris(rq.uris);
  if (uris.empty()) {
    *error = "no server URI given";
    return false;
  }
  for (const std::string& u : uris) {
    bool ldaps = u.compare(0, 8, "ldaps://") == 0, ldap = u.compare(0, 7, "ldap://") == 0;
    if (!ldaps && !ldap) {
      *error = "URI '" + u + "' is neither ldap:// nor ldaps://";
      return false;
    }
    if ((rq.tls == "ldaps") != ldaps) {
      *error = rq.tls == "ldaps" ? "--ldaps needs ldaps:// URIs" : "ldaps:// URIs need --ldaps";
      return false;
    }
  }
  if (rq.tls != "none" && rq.tls != "starttls" && rq.tls != "ldaps") {
    *error = "unknown TLS mode '" + rq.tls + "'";
    return false;
  }
  if (!rq.ca_file.empty() && rq.ca_file[0] != '/') {
    *error = "the CA file must be an absolute path";
    return false;
  }
  b->keys["uri"] = "";
  for (const std::string& u : uris) b->keys["uri"] += (b->keys["uri"].empty() ? "" : " ") + u;
  std::string base = rq.base;
  if (kind == Kind::kDomain) {
    if (!PlainToken(rq.workgroup) || !PlainToken(rq.realm)) {
      *error = "the domain needs a realm and a workgroup without blanks, ':', '@', '\\' or '/'";
      return false;
    }
    b->name = Upper(rq.workgroup);
    b->keys["realm"] = Upper(rq.realm);
    if (base.empty()) {
      for (size_t start = 0; start <= rq.realm.size();) {
        size_t dot = rq.realm.find('.', start);
        if (dot == std::string::npos) dot = rq.realm.size();
        base += (base.empty() ? "dc=" : ",dc=") + rq.realm.substr(start, dot - start);
        start = dot + 1;
      }
    }
  } else {
    b->name = rq.domain.empty() ? DomainFromBase(base) : rq.domain;
    if (!PlainToken(b->name)) {
      *error = rq.domain.empty() ? "the base DN has no dc= parts: give the domain with --domain"
                                 : "bad domain '" + rq.domain + "'";
      return false;
    }
  }
  if (base.empty()) {
    *error = "no base DN given";
    return false;
  }
  uint32_t lo, hi;
  if (!rq.idmap_range.empty() && !ParseIdRange(rq.idmap_range, &lo, &hi)) {
    *error = "bad ID range '" + rq.idmap_range + "' (LOW-HIGH)";
    return false;
  }
  for (const std::string* s :
       std::vector<const std::string*>{&base, &rq.bind_dn, &rq.ca_file, &rq.group_filter})
    if (!OneLine(*s)) {
      *error = "settings must fit on one line";
      return false;
    }
  b->keys["base"] = base;
  b->keys["bind_dn"] = rq.bind_dn;
  b->keys["tls"] = rq.tls;
  b->keys["ca"] = rq.ca_file;
  b->keys["group_filter"] = rq.group_filter;
  b->keys["idmap_range"] = rq.idmap_range;
  return true;
}

}  // namespace

bool BindDirectory(Kind kind, const BindRequest& rq, std::string* server, std::string* error) {
  Binding b;
  if (!Prepare(kind, rq, &b, error)) return false;
  ConnectOptions o;
  o.uris = SplitUris(b.Get("uri"));
  o.starttls = rq.tls == "starttls";
  o.ca_file = rq.ca_file;
  o.bind_dn = rq.bind_dn;
  o.password = rq.password;
  LdapConn conn;
  if (!conn.Open(o, error) || !conn.CheckBase(b.Get("base"), error)) return false;
  *server = conn.server();
  if (!WriteBinding(kind, b, rq.password, error)) return false;
  LogBound(kind, b.name, *server);
  return true;
}

bool UnbindDirectory(Kind kind, std::string* error) {
  Binding b;
  if (!ReadBinding(kind, &b, error)) return false;
  // Waits for a sync under way, so that it cannot put the list back after us.
  SyncLock lock(kind, true);
  // The configuration goes first: from then on the lists answer "not bound".
  if (!RemoveRootFile(ConfigPath(kind), error) || !RemoveRootFile(SecretPath(kind), error) ||
      !RemoveRootFile(GroupListPath(kind), error) || !RemoveSyncState(kind, error))
    return false;
  LogUnbound(kind, b.name);
  return true;
}

}  // namespace tavo_dir
