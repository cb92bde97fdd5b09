// LdapConn: one connection to an LDAP server, bound, for reading groups.
//
// Open tries the URIs in order. For each: connect (bounded by the connect
// timeout), StartTLS when asked (the server's certificate is checked against
// the CA file, or the system's CAs), then a simple bind (anonymous when no
// bind DN is given). A server that cannot be reached or fails TLS is skipped
// for the next URI; a refused bind is final (the credentials would be refused
// by every replica alike). Every operation is bounded by the operation
// timeout.
//
// Ownership: owns the libldap handle (released by the destructor).
// Thread-safety: one object per thread. The first Open in the process sets
// LDAPNOINIT so that no ldap.conf or .ldaprc of the machine changes what the
// appliance does.
// Errors: false with a message in *error that names the server and the
// reason; messages never hold the password.
#ifndef TAVO_DIRECTORY_LDAP_CONN_H_
#define TAVO_DIRECTORY_LDAP_CONN_H_

#include <functional>
#include <map>
#include <string>
#include <vector>

typedef struct ldap LDAP;

namespace tavo_dir {

struct ConnectOptions {
  std::vector<std::string> uris;  // ldap:// or ldaps://
  bool starttls = false;
  std::string ca_file;  // "" uses the system's CAs
  std::string bind_dn;  // "" binds anonymously
  std::string password;
  int connect_timeout = 5;  // seconds per server
  int timeout = 60;         // seconds per operation
};

// Attribute name (lower case) -> values (binary-safe).
using Entry = std::map<std::string, std::vector<std::string>>;

class LdapConn {
 public:
  LdapConn() = default;
  ~LdapConn();
  LdapConn(const LdapConn&) = delete;
  LdapConn& operator=(const LdapConn&) = delete;

  bool Open(const ConnectOptions& options, std::string* error);
  // The URI of the server that answered Open.
  const std::string& server() const { return server_; }

  // Checks that `base` names an entry the binding can read.
  bool CheckBase(const std::string& base, std::string* error);

  // Subtree search under `base`, read in pages of `page_size` entries with the
  // simple paged-results control (marked critical: a server without it
  // refuses rather than answering in one piece). `on_entry` gets each entry's
  // DN and the requested attributes; returning false stops with an error.
  // *pages counts the pages read.
  bool PagedSearch(const std::string& base, const std::string& filter,
                   const std::vector<std::string>& attrs, int page_size,
                   const std::function<bool(const std::string& dn, const Entry&)>& on_entry,
                   int* pages, std::string* error);

 private:
  void Close();
  std::string Describe(int rc) const;

  LDAP* ld_ = nullptr;
  std::string server_;
  int timeout_ = 60;
};

// Splits "a,b c" at commas and blanks into URIs.
std::vector<std::string> SplitUris(const std::string& text);

}  // namespace tavo_dir

#endif  // TAVO_DIRECTORY_LDAP_CONN_H_
