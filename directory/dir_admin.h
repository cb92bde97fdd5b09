// Binding to an LDAP directory and joining a Windows domain, and undoing them.
//
// Bind and Join first test the settings: connect (with failover), bind, and
// read the base entry. Only when all of that works do they write the
// configuration and the secret (dir_files.h) and log the event; a refused
// test changes nothing. They do not synchronise: the caller runs
// SyncDirectory (group_sync.h) next.
// Unbind and Leave remove the configuration, the secret, the local copy of
// the group list and the sync state, and log the event; they wait for a sync
// of that directory under way to end first.
//
// Thread-safety: may be called from any thread; concurrent calls for the same
// directory leave one of the settings in place.
// Errors: false with a message in *error (never holding the password).
#ifndef TAVO_DIRECTORY_DIR_ADMIN_H_
#define TAVO_DIRECTORY_DIR_ADMIN_H_

#include <string>

#include "directory/dir_files.h"

namespace tavo_dir {

struct BindRequest {
  std::string uris;  // comma- or blank-separated
  std::string base;  // for a domain: "" derives dc=... from the realm
  std::string bind_dn;
  std::string password;
  std::string tls = "none";  // none, starttls, ldaps
  std::string ca_file;       // absolute path
  std::string group_filter;  // "" for the default
  std::string domain;        // LDAP: "" derives it from the base DN
  std::string realm;         // domain only, e.g. EXAMPLE.COM
  std::string workgroup;     // domain only, e.g. EXAMPLE
  std::string idmap_range;   // "" for the default
};

// On success *server is the URI that answered the test.
bool BindDirectory(Kind kind, const BindRequest& request, std::string* server, std::string* error);
// Fails with "not bound"/"not joined" when there is nothing to undo.
bool UnbindDirectory(Kind kind, std::string* error);

}  // namespace tavo_dir

#endif  // TAVO_DIRECTORY_DIR_ADMIN_H_
