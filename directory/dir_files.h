// The directory files in the root: the binding of an LDAP directory, the
// membership of a Windows domain, their secrets, and durable replacement.
//
//   etc/tavo/ldap    first line: the directory's domain; then "key = value"
//   etc/tavo/domain  first line: the domain's short name (the DOMAIN of
//                    DOMAIN\group); then "key = value"
//   usr/tavo/etc/private/ldap.secret, domain.secret   the bind password, mode
//                    0600 in a 0700 folder; never copied anywhere else
//
// Keys: uri (space-separated, tried in order), base, bind_dn, tls (none,
// starttls or ldaps), ca, group_filter, page_size, connect_timeout, timeout;
// for a domain also realm and idmap_range ("LOW-HIGH").
//
// Thread-safety: plain functions over files; reentrant. Errors: false with a
// message in *error.
#ifndef TAVO_DIRECTORY_DIR_FILES_H_
#define TAVO_DIRECTORY_DIR_FILES_H_

#include <map>
#include <string>

#include "tavo/util.h"

namespace tavo_dir {

enum class Kind { kLdap, kDomain };

const char* KindName(Kind kind);  // "ldap" or "domain"

// Paths inside the root (absolute platform paths, resolved by TavoRootPath).
const char* ConfigPath(Kind kind);     // /etc/tavo/ldap, /etc/tavo/domain
const char* GroupListPath(Kind kind);  // the local copy of the group list
const char* SecretPath(Kind kind);
// The module's name; the platform keeps it in the runtime folder.
constexpr const char kDomainPidPath[] = "/tmp/domain_group.pid";

// A binding or membership as stored in its configuration file.
struct Binding {
  std::string name;  // the first line: directory domain or domain short name
  std::map<std::string, std::string> keys;
  std::string Get(const std::string& key, const std::string& def = "") const;
  int GetInt(const std::string& key, int def) const;
};

// Reads the configuration of `kind`. Returns false when it is absent
// (*error "not bound"/"not joined") or cannot be read.
bool ReadBinding(Kind kind, Binding* out, std::string* error);
// Writes the configuration (0644) and the secret (0600); an empty secret
// removes the secret file.
bool WriteBinding(Kind kind, const Binding& binding, const std::string& secret, std::string* error);
// The stored secret, "" when there is none.
std::string ReadSecret(Kind kind);

// Durably replaces the file at real path `path` with `content`: a temporary
// file in the same folder, fsync, rename over, fsync of the folder. Readers see
// the whole old or the whole new file. Creates missing folders (0755, or
// `dir_mode` for the last one).
bool ReplaceFile(const std::string& path, const std::string& content, unsigned mode,
                 std::string* error, unsigned dir_mode = 0755);
// Creates the missing folders of the real path `path` (0755).
bool MakeFolders(const std::string& path, std::string* error);
// Reads a whole file given by its real path; false when it cannot be read.
using tavo::ReadWholeFile;
// Removes a file in the root (absolute platform path); a missing file is fine.
bool RemoveRootFile(const char* abs_path, std::string* error);

}  // namespace tavo_dir

#endif  // TAVO_DIRECTORY_DIR_FILES_H_
