// `tavo serve`: loads the modules and serves them over HTTP until SIGINT or
// SIGTERM; SIGHUP reloads the TLS certificate and key.
#include <netdb.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "api/api_routes.h"
#include "api/directory_api.h"
#include "api/eventlog_api.h"
#include "api/json_util.h"
#include "api/module_loader.h"
#include "api/openapi.h"
#include "auth/auth_routes.h"
#include "cli/cli.h"
#include "cli/options.h"
#include "cli/serve_conf.h"
#include "cli/systemd_notify.h"
#include "cli/terminal_text.h"
#include "directory/periodic_sync.h"
#include "http/http_server.h"
#include "live/live_routes.h"
#include "privsep/priv_channel.h"
#include "privsep/split.h"
#include "tavo/error.h"
#include "tavo/eventlog.h"
#include "tavo/root.h"
#include "tavo/store_check.h"
#include "tls/tls_credentials.h"

namespace tavo_server {

namespace {

// Takes the listening socket systemd passed, if any (tavo.socket): the server
// then answers on its address, whatever `listen` says, under the same rule
// that plain HTTP beyond loopback needs --insecure-http.
Status AdoptActivatedSocket(ServeOptions* options) {
  std::string error;
  const int fd = ActivatedListenSocket(&error);
  if (fd == -2) return Status::Error(error);
  if (fd < 0) return Status::OK();
  sockaddr_storage addr{};
  socklen_t len = sizeof(addr);
  char host[NI_MAXHOST], port[NI_MAXSERV];
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0 ||
      getnameinfo(reinterpret_cast<sockaddr*>(&addr), len, host, sizeof host, port, sizeof port,
                  NI_NUMERICHOST | NI_NUMERICSERV) != 0)
    return Status::Error("the socket systemd passed has no address");
  options->activated_fd = fd;
  options->host = host;
  options->port = atoi(port);
  if (!options->tls() && !options->insecure_http && !IsLoopbackHost(options->host))
    return Status::Error(std::string("the socket systemd passed listens on ") + host +
                         ", not loopback: serve HTTPS (--tls-cert, --tls-key) or allow plain HTTP "
                         "with --insecure-http");
  return Status::OK();
}

// SIGHUP: the certificate and key are read again (through `read_tls`) and
// presented from the next handshake on; a pair that cannot be read or does
// not pass the checks leaves the one in use.
void ReloadTls(const ServeOptions& options, HttpServer& server, const TlsReader& read_tls) {
  if (!options.tls()) {
    syslog(LOG_NOTICE, "SIGHUP: nothing to reload (the server does not serve HTTPS)");
    return;
  }
  std::string cert, key;
  Status s = read_tls(&cert, &key);
  if (s.ok()) s = server.ReloadTls(cert, key);
  if (s.ok()) {
    syslog(LOG_NOTICE, "SIGHUP: TLS certificate reloaded from %s",
           TerminalSafe(options.tls_cert).c_str());
  } else {
    syslog(LOG_ERR, "SIGHUP: TLS certificate kept as it was: %s",
           TerminalSafe(s.message()).c_str());
  }
}

// Binds, announces and serves HTTP until a stop signal arrives (`signals`:
// SIGINT, SIGTERM and SIGHUP, blocked in every thread). `after_bind` runs
// once the socket is bound and the TLS files are read (a split server drops
// its rights there); `sync_here` runs the periodic directory sync in this
// process.
int RunFront(const ServeOptions& options, AccountOps& ops, const sigset_t& signals,
             const std::function<bool()>& after_bind, bool sync_here, const TlsReader& read_tls) {
  Status s;
  HttpServer server(options);
  // Logins and sessions, then the module calls that need them.
  AuthRoutes auth(options, ops, server.metrics());
  auth.Register(server);
  ApiRoutes api(ops, auth, server.metrics());
  api.Register(server);
  LiveRoutes live(options, auth);
  live.Register(server);
  int port = 0;
  s = server.Bind(&port);
  if (!s.ok()) {
    fprintf(stderr, "tavo serve: %s\n", TerminalSafe(s.message()).c_str());
    return kExitFailure;
  }
  std::string host =
      options.host.find(':') != std::string::npos ? "[" + options.host + "]" : options.host;
  printf("tavo: listening on %s://%s:%d\n", options.tls() ? "https" : "http", host.c_str(), port);
  printf("Open %s://%s:%d/ in a browser and log in as a member of administrators.\n",
         options.tls() ? "https" : "http", host.c_str(), port);
  fflush(stdout);
  fprintf(stderr, "tavo: root %s, modules %s, web %s, %d workers\n",
          TerminalSafe(options.root).c_str(), TerminalSafe(options.modules_dir).c_str(),
          TerminalSafe(options.web_dir).c_str(), options.workers);
  fflush(stderr);

  if (!after_bind()) return kExitFailure;
  NotifyReady(std::string("serving ") + (options.tls() ? "https" : "http") + "://" + host + ":" +
              std::to_string(port));

  // The watchdog is fed at half the interval asked for, each time the event
  // threads have answered a connection handed to them (a stuck event loop
  // stops the pings, and systemd restarts the service).
  std::mutex watchdog_mutex;
  std::condition_variable watchdog_wake;
  bool stopping = false;
  std::thread watchdog;
  if (uint64_t usec = WatchdogIntervalUsec()) {
    watchdog = std::thread([&, usec] {
      const int probe_ms = static_cast<int>(std::min<uint64_t>(usec / 4000, 5000));
      std::unique_lock<std::mutex> lock(watchdog_mutex);
      while (!watchdog_wake.wait_for(lock, std::chrono::microseconds(usec / 2),
                                     [&] { return stopping; })) {
        lock.unlock();
        const bool alive = server.ProbeEventLoop(probe_ms);
        lock.lock();
        if (alive)
          NotifyWatchdog();
        else if (!stopping)
          syslog(LOG_WARNING, "the event threads did not answer within %d ms", probe_ms);
      }
    });
  }
  std::unique_ptr<tavo_dir::PeriodicSync> directory_sync;
  if (sync_here) {
    // Directory group lists: synchronised now and then every interval.
    directory_sync.reset(new tavo_dir::PeriodicSync(tavo_dir::PeriodicSync::ConfiguredInterval()));
  }

  std::thread stopper([&server, &options, &read_tls, signals] {
    int sig = 0;
    while (sigwait(&signals, &sig) != 0 || sig == SIGHUP) {
      if (sig == SIGHUP) ReloadTls(options, server, read_tls);
      sig = 0;
    }
    fprintf(stderr, "tavo: signal %d, stopping\n", sig);
    NotifyStopping();
    server.Stop();
  });
  s = server.Run();
  // Wake the signal thread if the server ended on its own.
  pthread_kill(stopper.native_handle(), SIGTERM);
  stopper.join();
  {
    std::lock_guard<std::mutex> lock(watchdog_mutex);
    stopping = true;
  }
  watchdog_wake.notify_all();
  if (watchdog.joinable()) watchdog.join();
  if (!s.ok()) {
    // Requests still hold workers and suspended connections: leave without
    // waiting for them any longer.
    fprintf(stderr, "tavo serve: %s\n", s.message().c_str());
    fflush(stderr);
    _exit(kExitFailure);
  }
  return kExitOk;
}

}  // namespace

int ServeMain(const std::vector<std::string>& command_line) {
  std::vector<std::string> args;
  std::string conf;
  Status s = MergeServeConf(command_line, &args, &conf);
  if (!s.ok()) {
    fprintf(stderr, "tavo serve: %s\n", TerminalSafe(s.message()).c_str());
    return kExitUsage;
  }
  ServeOptions options;
  s = ParseServeOptions(args, &options);
  if (!s.ok()) {
    fprintf(stderr, "tavo serve: %s\n%s", TerminalSafe(s.message()).c_str(), ServeUsage().c_str());
    return kExitUsage;
  }
  if (options.help) {
    fputs(ServeUsage().c_str(), stdout);
    return kExitOk;
  }
  // The appliance's own host name is always answered: it is the name its
  // certificate carries, and no other site can make it resolve elsewhere.
  char own_name[256] = "";
  if (gethostname(own_name, sizeof(own_name) - 1) == 0 && own_name[0] != '\0')
    options.server_names.push_back(own_name);
  s = AdoptActivatedSocket(&options);
  if (!s.ok()) {
    fprintf(stderr, "tavo serve: %s\n", TerminalSafe(s.message()).c_str());
    return kExitFailure;
  }
  s = ResolveRoot(options.root, &options.root);
  if (!s.ok()) {
    fprintf(stderr, "tavo serve: %s\n", TerminalSafe(s.message()).c_str());
    return kExitUsage;
  }
  tavo::TavoRootSet(options.root);
  // A reload asked for while the server starts (systemd may send it as soon
  // as the process exists) waits for the signal thread below, which then
  // reads the TLS files again, instead of ending the process.
  sigset_t hangup;
  sigemptyset(&hangup);
  sigaddset(&hangup, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &hangup, nullptr);
  if (!conf.empty()) fprintf(stderr, "tavo: settings from %s\n", TerminalSafe(conf).c_str());
  // The directory client reads no ldap.conf or .ldaprc of the machine; set
  // before any thread starts.
  setenv("LDAPNOINIT", "1", 1);
  // Set before any thread starts, which then inherits it (both processes of
  // the split server too).
  // Under the package's unit the policy is set already, and the call to
  // change it is refused.
  if (options.batch_scheduling && sched_getscheduler(0) != SCHED_BATCH) {
    const struct sched_param none {};
    if (sched_setscheduler(0, SCHED_BATCH, &none) != 0)
      fprintf(stderr, "tavo serve: warning: keeping the normal CPU policy: %s\n", strerror(errno));
  }
  // The modules' system-log lines are copied to standard error, unless that
  // is the journal, which has them from the system log already.
  openlog("tavo", (StandardErrorIsJournal() ? 0 : LOG_PERROR) | LOG_PID, LOG_USER);

  // A change of the group files that a crash cut off is completed first.
  tavo::StoreCheckResult recovered;
  if (!tavo::RecoverAccountFiles("tavo serve", &recovered))
    syslog(LOG_WARNING, "cannot complete a cut-off change of the group files (error 0x%04X)",
           TLIBCErrGet());
  for (const std::string& r : recovered.repairs) syslog(LOG_NOTICE, "%s", r.c_str());
  // An event log made by an older version may still be readable by others.
  tavo::EventLogRestrict();

  ModuleSet modules;
  if (!LoadAllModules(options.modules_dir, &modules, true)) return kExitFailure;
  // Made here, where the modules are: a split-off front has none of its own.
  options.openapi_json = ToCompactJson(BuildOpenApi(modules));

  // SIGINT, SIGTERM and SIGHUP are taken by a thread of their own, which
  // stops the server or reloads its certificate; every other thread (the
  // workers too) keeps them blocked.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  // The pair is checked here, where the files are read: a split-off front is
  // sent only a certificate and the key that matches it.
  const TlsReader read_files = [&options](std::string* cert, std::string* key) {
    Status read = ReadTlsFiles(options.tls_cert, options.tls_key, cert, key);
    if (read.ok()) read = TlsCredentials::Check(*cert, *key);
    if (!read.ok()) {
      explicit_bzero(&(*key)[0], key->size());
      key->clear();
    }
    return read;
  };
  signal(SIGPIPE, SIG_IGN);
  // Each connection is a descriptor: allow as many as the system lets us.
  struct rlimit files;
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
  }

  LocalAccountOps local(modules, static_cast<size_t>(options.answer_cache),
                        std::chrono::seconds(options.session_lifetime),
                        2 * static_cast<size_t>(options.max_sessions), LoginLimits(options));
  WatchdogIntervalUsec();  // asked here, in the process systemd watches
  if (!options.privsep_user.empty()) {
    if (geteuid() != 0) {
      fprintf(stderr, "tavo serve: --privsep-user needs root\n");
      return kExitUsage;
    }
    // A body must fit in one request to the account process.
    if (options.max_body > kMaxRequest / 2) {
      fprintf(stderr, "tavo serve: --max-body is at most %zu with --privsep-user; using that\n",
              kMaxRequest / 2);
      options.max_body = kMaxRequest / 2;
    }
    std::unique_ptr<tavo_dir::PeriodicSync> directory_sync;
    return ServeSplit(
        options.privsep_user, local, signals,
        [&options, &signals](AccountOps& ops, const std::function<bool()>& drop,
                             const TlsReader& read_tls) {
          return RunFront(options, ops, signals, drop, false, read_tls);
        },
        [&directory_sync] {
          directory_sync.reset(
              new tavo_dir::PeriodicSync(tavo_dir::PeriodicSync::ConfiguredInterval()));
        },
        read_files);
  }
  return RunFront(
      options, local, signals, [] { return true; }, true, read_files);
}

}  // namespace tavo_server
