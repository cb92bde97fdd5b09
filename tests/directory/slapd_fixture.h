// A private slapd for the directory tests, started once per test program.
//
// Generates a configuration folder in a temporary directory (mdb backend,
// core/cosine/nis schemas and domain.schema, a self-signed certificate for
// StartTLS made with openssl at start), loads the initial entries with
// slapadd, serves them on a free loopback port, and stops the server and
// removes the folder at the end. Entries added later go through ldapadd.
//
// Two naming contexts: dc=example,dc=com (an LDAP directory with the accounts
// cn=reader and cn=limited, the latter allowed at most 1500 entries in one
// paged search) and dc=corp,dc=test (a Windows domain's groups).
//
// Thread-safety: used from the test thread only.
#ifndef TAVO_TESTS_DIRECTORY_SLAPD_FIXTURE_H_
#define TAVO_TESTS_DIRECTORY_SLAPD_FIXTURE_H_

#include <sys/types.h>

#include <string>

namespace tavo_test {

class Slapd {
 public:
  static Slapd* Get();  // the running server (started by the test environment)

  // The entries of each naming context are loaded with slapadd before the
  // server starts.
  bool Start(const std::string& example_ldif, const std::string& corp_ldif);
  void Stop();

  int port() const { return port_; }
  std::string uri() const { return "ldap://127.0.0.1:" + std::to_string(port_); }
  const std::string& dir() const { return dir_; }
  std::string ca_file() const { return dir_ + "/cert.pem"; }
  // A file holding `password` (mode 0600) inside the server's folder.
  std::string PasswordFile(const std::string& password) const;
  // Adds entries as the directory's manager; returns ldapadd's exit status.
  int Add(const std::string& ldif) const;

 private:
  std::string dir_;
  int port_ = 0;
  pid_t pid_ = -1;
};

// A loopback port with nothing listening on it.
int ClosedPort();
// Runs a shell command, returns its exit status and stdout+stderr in *out.
int RunCommand(const std::string& command, std::string* out);

}  // namespace tavo_test

#endif  // TAVO_TESTS_DIRECTORY_SLAPD_FIXTURE_H_
