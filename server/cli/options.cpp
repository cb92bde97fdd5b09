#include "cli/options.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <sstream>

#ifndef TAVO_WEB_SOURCE_DIR
#define TAVO_WEB_SOURCE_DIR ""
#endif

namespace tavo_server {
namespace {

bool IsDir(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool ParseNumber(const std::string& text, long lo, long hi, long* out) {
  if (text.empty() || text.size() > 12) return false;
  char* end = nullptr;
  long v = std::strtol(text.c_str(), &end, 10);
  if (*end != '\0' || v < lo || v > hi || !isdigit(static_cast<unsigned char>(text[0])))
    return false;
  *out = v;
  return true;
}

}  // namespace

bool ParseListen(const std::string& text, std::string* host, int* port) {
  auto colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  std::string h = text.substr(0, colon);
  if (h.size() > 2 && h.front() == '[' && h.back() == ']') h = h.substr(1, h.size() - 2);
  long p;
  if (!ParseNumber(text.substr(colon + 1), 0, 65535, &p)) return false;
  *host = h;
  *port = static_cast<int>(p);
  return true;
}

Status ParseServeOptions(const std::vector<std::string>& args, ServeOptions* out) {
  ServeOptions o;
  struct IntOption {
    const char* name;
    int* field;
    long lo, hi;
  };
  long max_body = static_cast<long>(o.max_body);
  const IntOption ints[] = {
      {"--workers", &o.workers, 1, 256},
      {"--queue", &o.queue, 1, 100000},
      {"--event-threads", &o.event_threads, 0, 64},
      {"--max-connections", &o.max_connections, 1, 1000000},
      {"--per-address", &o.per_address, 1, 1000000},
      {"--stop-timeout", &o.stop_timeout, 1, 3600},
      {"--read-timeout", &o.read_timeout, 1, 3600},
      {"--write-timeout", &o.write_timeout, 1, 3600},
      {"--keepalive-timeout", &o.keepalive_timeout, 0, 3600},
      {"--keepalive-max", &o.keepalive_max, 1, 100000},
      {"--session-idle", &o.session_idle, 1, 7 * 24 * 3600},
      {"--session-lifetime", &o.session_lifetime, 1, 30 * 24 * 3600},
      {"--max-sessions", &o.max_sessions, 1, 100000},
      {"--answer-cache", &o.answer_cache, 0, 100000},
  };
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "-h" || a == "--help") {
      o.help = true;
      continue;
    }
    if (a == "--insecure-http") {
      o.insecure_http = true;
      continue;
    }
    if (i + 1 >= args.size()) return Status::Error("unknown option or missing value: " + a);
    const std::string& v = args[++i];
    if (a == "--root") {
      o.root = v;
    } else if (a == "--listen") {
      if (!ParseListen(v, &o.host, &o.port))
        return Status::Error("--listen needs HOST:PORT, got " + v);
    } else if (a == "--modules") {
      o.modules_dir = v;
    } else if (a == "--web") {
      o.web_dir = v;
    } else if (a == "--privsep-user") {
      o.privsep_user = v;
    } else if (a == "--scheduling") {
      if (v != "batch" && v != "normal")
        return Status::Error("--scheduling needs batch or normal, got " + v);
      o.batch_scheduling = v == "batch";
    } else if (a == "--tls-cert") {
      o.tls_cert = v;
    } else if (a == "--tls-key") {
      o.tls_key = v;
    } else if (a == "--server-name") {
      if (v.empty() || v.find_first_of(":/[] ") != std::string::npos)
        return Status::Error("--server-name needs a host name, got " + v);
      o.server_names.push_back(v);
    } else if (a == "--max-body") {
      if (!ParseNumber(v, 1, 64L * 1024 * 1024, &max_body))
        return Status::Error("bad --max-body: " + v);
    } else {
      bool known = false;
      for (const IntOption& io : ints) {
        if (a != io.name) continue;
        long n;
        if (!ParseNumber(v, io.lo, io.hi, &n))
          return Status::Error("bad " + a + ": " + v + " (" + std::to_string(io.lo) + ".." +
                               std::to_string(io.hi) + ")");
        *io.field = static_cast<int>(n);
        known = true;
      }
      if (!known) return Status::Error("unknown option: " + a);
    }
  }
  o.max_body = static_cast<size_t>(max_body);
  if (o.tls_cert.empty() != o.tls_key.empty())
    return Status::Error("--tls-cert and --tls-key go together");
  if (!o.help && !o.tls() && !o.insecure_http && !IsLoopbackHost(o.host))
    return Status::Error("listening on " + o.host +
                         " without TLS would send passwords in clear text: give --tls-cert and "
                         "--tls-key (tavo init made a certificate in ROOT/etc/tavo/tls), or "
                         "--insecure-http");
  if (o.modules_dir.empty()) o.modules_dir = DefaultModulesDir();
  if (o.web_dir.empty()) o.web_dir = DefaultWebDir();
  *out = o;
  return Status::OK();
}

bool IsLoopbackHost(const std::string& host) {
  unsigned char a[16];
  if (host == "localhost") return true;
  if (inet_pton(AF_INET, host.c_str(), a) == 1) return a[0] == 127;
  return inet_pton(AF_INET6, host.c_str(), a) == 1 &&
         IN6_IS_ADDR_LOOPBACK(reinterpret_cast<in6_addr*>(a));
}

std::string ServeUsage() {
  ServeOptions d;
  std::ostringstream s;
  s << "usage: tavo serve --root DIR [--listen HOST:PORT] [--modules DIR] [--web DIR] [limits]\n"
       "\n"
       "Serves the web API and the admin page over HTTP/1.1.\n"
       "  --config FILE          NAME = VALUE settings, NAME an option below without its --;\n"
       "                         the command line wins (default /etc/tavo/serve.conf if it\n"
       "                         exists; none: no file)\n"
       "  --root DIR             appliance root (default: $TAVO_ROOT; required)\n"
       "  --listen HOST:PORT     address to listen on (default 127.0.0.1:8780; port 0 picks one)\n"
       "  --modules DIR          folder of *.so API modules (default: "
    << DefaultModulesDir() << ")\n"
    << "  --web DIR              folder of the admin page (default: " << DefaultWebDir() << ")\n"
    << "  --tls-cert FILE        serve HTTPS with this PEM certificate (chain) ...\n"
    << "  --tls-key FILE         ... and its PEM key; cookies are then Secure and HSTS is sent\n"
    << "  --insecure-http        allow plain HTTP on an address other than loopback\n"
    << "  --privsep-user USER    (as root) parse HTTP in a process running as USER; this one\n"
    << "                         keeps the account files and the modules\n"
    << "  --scheduling POLICY    batch: the server's threads never preempt a running one when\n"
    << "                         they wake, and yield to the file services; normal: keep the\n"
    << "                         policy it was started with ["
    << (d.batch_scheduling ? "batch" : "normal") << "]\n"
    << "  --server-name NAME     also answer requests whose Host is NAME (repeatable; IP\n"
    << "                         addresses, localhost and this host's name are always answered,\n"
       "                         other names get "
       "421)\n"
    << "\nLimits (defaults in brackets):\n"
    << "  --workers N            threads running module calls [" << d.workers << "]\n"
    << "  --queue N              calls waiting for a worker; more get HTTP 503 [" << d.queue
    << "]\n"
    << "  --event-threads N      threads reading and writing connections; 0: one per core ["
    << d.event_threads << "]\n"
    << "  --max-connections N    open connections; more get HTTP 503 [" << d.max_connections
    << "]\n"
    << "  --per-address N        open connections from one client address; more are closed ["
    << d.per_address << "]\n"
    << "  --max-body BYTES       largest request body; larger ones get HTTP 413 [" << d.max_body
    << "]\n"
    << "  --read-timeout S       time allowed to receive a request [" << d.read_timeout << "]\n"
    << "  --write-timeout S      time allowed to send an answer [" << d.write_timeout << "]\n"
    << "  --stop-timeout S       time to finish the requests in flight at SIGTERM ["
    << d.stop_timeout << "]\n"
    << "  --keepalive-timeout S  idle time a connection is kept open [" << d.keepalive_timeout
    << "]\n"
    << "  --keepalive-max N      requests served on one connection [" << d.keepalive_max << "]\n"
    << "  --answer-cache N       module answers kept to be given again while their account\n"
    << "                         files are unchanged; 0: none [" << d.answer_cache << "]\n"
    << "  --session-idle S       a session ends after this long unused [" << d.session_idle << "]\n"
    << "  --session-lifetime S   a session ends this long after the login [" << d.session_lifetime
    << "]\n"
    << "  --max-sessions N       sessions alive at once; the least recently used goes ["
    << d.max_sessions << "]\n"
    << "  fixed: request head (line and headers) at most 16 KiB, at most 100 headers\n"
    << "         (HTTP 414 or 431);\n"
    << "         " << d.login_max_failures
    << " failed logins for one account from one client address, or " << 4 * d.login_max_failures
    << " from one address,\n"
    << "         within " << d.login_window
    << " s make further tries from there answer HTTP 429 until the\n"
    << "         window has passed; more failures of one account from anywhere delay its tries\n"
    << "         (up to 4 s), except from a browser that logged in to it before (device cookie).\n";
  return s.str();
}

std::string ExeDir() {
  // The full program, started by the lean `tavo` (launcher.cpp), finds its
  // files where `tavo` itself would.
  if (const char* dir = std::getenv("TAVO_PROGRAM_DIR"); dir && *dir == '/') return dir;
  char buf[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
  if (n <= 0) return ".";
  std::string exe(buf, static_cast<size_t>(n));
  auto slash = exe.rfind('/');
  return slash == std::string::npos ? "." : exe.substr(0, slash);
}

std::string DefaultModulesDir() {
  std::string dir = ExeDir();
  if (IsDir(dir + "/../modules")) return dir + "/../modules";
  return dir + "/../lib/tavo/modules";
}

std::string DefaultWebDir() {
  std::string installed = ExeDir() + "/../share/tavo/web";
  if (IsDir(installed) || std::string(TAVO_WEB_SOURCE_DIR).empty()) return installed;
  return TAVO_WEB_SOURCE_DIR;
}

Status ResolveRoot(const std::string& given, std::string* root) {
  std::string dir = given;
  if (dir.empty()) {
    const char* env = std::getenv("TAVO_ROOT");
    if (env != nullptr) dir = env;
  }
  if (dir.empty())
    return Status::Error(
        "no root folder: pass --root DIR or set TAVO_ROOT (--root / for the real system)");
  char buf[PATH_MAX];
  if (realpath(dir.c_str(), buf) == nullptr || !IsDir(buf))
    return Status::Error("the root folder " + dir + " does not exist");
  *root = buf;
  return Status::OK();
}

}  // namespace tavo_server
