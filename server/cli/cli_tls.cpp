// `tavo tls-cert`: the appliance's own TLS certificate, made once.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "cli/cli.h"
#include "cli/terminal_text.h"
#include "tls/tls_cert.h"

namespace tavo_server {
namespace {

const char kTlsUsage[] =
    "usage: tavo tls-cert [--root DIR] [--host NAME]\n"
    "Makes a self-signed TLS certificate for NAME (default: this machine's host name) in\n"
    "DIR/etc/tavo/tls (cert.pem, and key.pem readable by root only), unless cert.pem is\n"
    "there already; prints the certificate's path. DIR defaults to /.\n";

int Usage(const std::string& message) {
  fprintf(stderr, "tavo tls-cert: %s\n%s", TerminalSafe(message).c_str(), kTlsUsage);
  return kExitUsage;
}

}  // namespace

bool EnsureCertificate(const std::string& root, const std::string& host, std::string* error) {
  const std::string dir = root == "/" ? "" : root;
  const std::string cert = dir + "/etc/tavo/tls/cert.pem", key = dir + "/etc/tavo/tls/key.pem";
  struct stat st;
  if (lstat(cert.c_str(), &st) == 0) return true;
  std::string name = host;
  if (name.empty()) {
    char buf[256] = "localhost";
    gethostname(buf, sizeof(buf) - 1);
    name = buf;
  }
  std::string cert_pem, key_pem;
  Status made = MakeSelfSignedCertificate(name, &cert_pem, &key_pem);
  if (!made.ok()) {
    *error = "cannot make the TLS certificate: " + made.message();
    return false;
  }
  // The key first: a certificate without its key would stop the next run.
  if (!MakeRootDirs(dir, {"/etc/tavo/tls"}) || !WriteRootFile(key, key_pem, 0600) ||
      !WriteRootFile(cert, cert_pem, 0644)) {
    *error = "cannot write the TLS certificate in " + dir + "/etc/tavo/tls";
    return false;
  }
  return true;
}

int TlsCertMain(const std::vector<std::string>& args) {
  std::string root = "/", host;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "-h" || a == "--help") {
      fputs(kTlsUsage, stdout);
      return kExitOk;
    }
    if ((a == "--root" || a == "--host") && i + 1 < args.size()) {
      (a == "--root" ? root : host) = args[++i];
    } else {
      return Usage("unexpected argument '" + a + "'");
    }
  }
  std::string error;
  if (!EnsureCertificate(root, host, &error)) {
    fprintf(stderr, "tavo tls-cert: %s\n", TerminalSafe(error).c_str());
    return kExitFailure;
  }
  printf("%s/etc/tavo/tls/cert.pem\n", root == "/" ? "" : TerminalSafe(root).c_str());
  return kExitOk;
}

}  // namespace tavo_server
