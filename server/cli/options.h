// Options of `tavo serve` and the places the program finds its files.
//
// Every limit of the HTTP server is a field here with its default; `tavo serve
// --help` prints them (ServeUsage) and docs/server.md explains them.
//
// Thread-safety: plain values; the functions are reentrant.
#ifndef TAVO_SERVER_OPTIONS_H_
#define TAVO_SERVER_OPTIONS_H_

#include <string>
#include <vector>

#include "api/status.h"

namespace tavo_server {

struct ServeOptions {
  std::string root;                       // --root, else $TAVO_ROOT; required
  std::string host = "127.0.0.1";         // --listen HOST:PORT
  int port = 8780;                        // 0 picks a free port
  std::string modules_dir;                // --modules, else DefaultModulesDir()
  std::string web_dir;                    // --web, else DefaultWebDir()
  int workers = 8;                        // --workers: threads running module calls
  int queue = 256;                        // --queue: calls waiting for a worker; more get 503
  int event_threads = 0;                  // --event-threads: 0 = one per core
  int max_connections = 8192;             // --max-connections open at once; more get 503
  int per_address = 64;                   // --per-address connections from one client address
  size_t max_body = 64 * 1024;            // --max-body BYTES: larger bodies get 413
  int read_timeout = 10;                  // --read-timeout SECONDS
  int write_timeout = 10;                 // --write-timeout SECONDS
  int keepalive_timeout = 30;             // --keepalive-timeout SECONDS idle between requests
  int keepalive_max = 100;                // --keepalive-max requests per connection
  int stop_timeout = 30;                  // --stop-timeout SECONDS to finish requests at SIGTERM
  int session_idle = 15 * 60;             // --session-idle SECONDS
  int session_lifetime = 8 * 3600;        // --session-lifetime SECONDS, however busy
  int max_sessions = 256;                 // --max-sessions
  int answer_cache = 512;                 // --answer-cache N answers kept for reuse; 0: none
  int login_max_failures = 5;             // failed logins per account and address ...
  int login_window = 60;                  // ... within this many seconds before 429
  std::string tls_cert, tls_key;          // --tls-cert FILE --tls-key FILE (PEM): serve HTTPS
  bool insecure_http = false;             // --insecure-http: plain HTTP beyond loopback
  std::vector<std::string> server_names;  // --server-name NAME, repeatable: Host names answered
  std::string privsep_user;               // --privsep-user USER: the front runs as USER (root only)
  bool batch_scheduling = true;           // --scheduling batch|normal: SCHED_BATCH, or as started
  // Not an option: the OpenAPI document of the loaded modules (compact JSON),
  // made where the modules are loaded, answered at GET /api/openapi.json.
  std::string openapi_json;
  // Not an option: the listening socket systemd passed (tavo.socket), or -1.
  // `host` and `port` then name its address.
  int activated_fd = -1;
  bool help = false;

  bool tls() const { return !tls_cert.empty(); }
};

// True for "localhost", 127.0.0.0/8 and ::1.
bool IsLoopbackHost(const std::string& host);

// Parses the arguments after "serve". On failure returns an error whose
// message is meant for the user (a usage error).
Status ParseServeOptions(const std::vector<std::string>& args, ServeOptions* out);
std::string ServeUsage();

// Splits "HOST:PORT"; HOST may be "[::1]". False on a bad port.
bool ParseListen(const std::string& text, std::string* host, int* port);

// The folder holding the running program.
std::string ExeDir();
// <exe>/../modules in a build tree, else <exe>/../lib/tavo/modules.
std::string DefaultModulesDir();
// <exe>/../share/tavo/web when installed, else the source tree's web/.
std::string DefaultWebDir();

// --root argument or $TAVO_ROOT made absolute and canonical. Fails (a usage
// error) when neither is given or the folder does not exist.
Status ResolveRoot(const std::string& given, std::string* root);

}  // namespace tavo_server

#endif  // TAVO_SERVER_OPTIONS_H_
