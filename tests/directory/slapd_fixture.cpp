#include "directory/slapd_fixture.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace tavo_test {
namespace {

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

bool CanConnect(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0;
  close(fd);
  return ok;
}

}  // namespace

Slapd* Slapd::Get() {
  static Slapd server;
  return &server;
}

int ClosedPort() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(a);
  bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  close(fd);
  return ntohs(a.sin_port);
}

int RunCommand(const std::string& command, std::string* out) {
  out->clear();
  FILE* p = popen((command + " 2>&1").c_str(), "r");
  if (!p) return -1;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), p)) > 0) out->append(buf, n);
  int status = pclose(p);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool Slapd::Start(const std::string& example_ldif, const std::string& corp_ldif) {
  char tmpl[] = "/tmp/tavo-slapd-XXXXXX";
  if (!mkdtemp(tmpl)) return false;
  dir_ = tmpl;
  std::string out;
  if (RunCommand("mkdir " + dir_ + "/db1 " + dir_ + "/db2", &out) != 0) return false;
  if (RunCommand("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "
                 "-days 2 -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 -keyout " +
                     dir_ + "/key.pem -out " + dir_ + "/cert.pem",
                 &out) != 0) {
    fprintf(stderr, "openssl: %s\n", out.c_str());
    return false;
  }
  std::string conf =
      "include /etc/ldap/schema/core.schema\n"
      "include /etc/ldap/schema/cosine.schema\n"
      "include /etc/ldap/schema/nis.schema\n"
      "include " TAVO_DOMAIN_SCHEMA
      "\n"
      "pidfile " +
      dir_ +
      "/slapd.pid\n"
      "modulepath /usr/lib/ldap\nmoduleload back_mdb\n"
      "TLSCertificateFile " +
      dir_ +
      "/cert.pem\n"
      "TLSCertificateKeyFile " +
      dir_ +
      "/key.pem\n"
      "database mdb\nsuffix \"dc=example,dc=com\"\nrootdn \"cn=admin,dc=example,dc=com\"\n"
      "rootpw manager\ndirectory " +
      dir_ +
      "/db1\nmaxsize 268435456\n"
      "limits dn.exact=\"cn=limited,dc=example,dc=com\" size.soft=1000 size.hard=1000 "
      "size.prtotal=1500\n"
      "limits users size.soft=1000 size.hard=1000 size.prtotal=unlimited\n"
      "access to attrs=userPassword by anonymous auth by * none\n"
      "access to * by users read by * none\n"
      "database mdb\nsuffix \"dc=corp,dc=test\"\nrootdn \"cn=admin,dc=corp,dc=test\"\n"
      "rootpw manager\ndirectory " +
      dir_ +
      "/db2\nmaxsize 268435456\n"
      "access to attrs=userPassword by anonymous auth by * none\n"
      "access to * by dn.exact=\"cn=reader,dc=example,dc=com\" read by * none\n";
  WriteFile(dir_ + "/slapd.conf", conf);
  WriteFile(dir_ + "/example.ldif", example_ldif);
  WriteFile(dir_ + "/corp.ldif", corp_ldif);
  for (const char* name : {"example", "corp"}) {
    std::string suffix = name[0] == 'e' ? "dc=example,dc=com" : "dc=corp,dc=test";
    if (RunCommand("slapadd -q -f " + dir_ + "/slapd.conf -b " + suffix + " -l " + dir_ + "/" +
                       name + ".ldif",
                   &out) != 0) {
      fprintf(stderr, "slapadd: %s\n", out.c_str());
      return false;
    }
  }
  port_ = ClosedPort();
  std::string listen = uri() + "/";
  pid_ = fork();
  if (pid_ == 0) {
    execl("/usr/sbin/slapd", "slapd", "-f", (dir_ + "/slapd.conf").c_str(), "-h", listen.c_str(),
          "-d", "0", static_cast<char*>(nullptr));
    _exit(127);
  }
  for (int i = 0; i < 200; ++i) {
    if (CanConnect(port_)) return true;
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) break;
    usleep(50 * 1000);
  }
  return false;
}

void Slapd::Stop() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  if (!dir_.empty() && dir_.rfind("/tmp/tavo-slapd-", 0) == 0) {
    std::string out;
    RunCommand("rm -rf " + dir_, &out);
  }
}

std::string Slapd::PasswordFile(const std::string& password) const {
  static int n = 0;
  std::string path = dir_ + "/pw" + std::to_string(++n);
  WriteFile(path, password);
  chmod(path.c_str(), 0600);
  return path;
}

int Slapd::Add(const std::string& ldif) const {
  static int n = 0;
  std::string path = dir_ + "/add" + std::to_string(++n) + ".ldif";
  WriteFile(path, ldif);
  std::string pw = PasswordFile("manager"), out;
  bool corp = ldif.find("dc=corp,dc=test") != std::string::npos;
  int rc =
      RunCommand("ldapadd -x -H " + uri() + " -D cn=admin," +
                     (corp ? "dc=corp,dc=test" : "dc=example,dc=com") + " -y " + pw + " -f " + path,
                 &out);
  if (rc != 0) fprintf(stderr, "ldapadd: %s\n", out.c_str());
  return rc;
}

}  // namespace tavo_test
