// HttpServer: the HTTP front of `tavo serve`, an event-driven core on
// libmicrohttpd (epoll, one event thread per core by default).
//
// Routes:
//   POST /api/auth/login    {"account", "password"} -> session cookie + token
//   POST /api/auth/logout   ends the session (token header or cookie)
//   GET  /api/auth/session  with the cookie: is the session alive, and its token
//   GET  /api/info          the loaded APIs and methods            (token)
//   POST /api               {"api", "version", "method", "params"} (token)
//   GET  /api?api=..&version=..&method=..&NAME=VALUE..             (token)
//   GET  /api/live          a text/event-stream of change notices  (token,
//                           same site only; live/http_live.cpp)
//   GET  anything else      a file of the admin page folder
// "(token)": the request must carry the session token in X-Tavo-Token or in
// Authorization: Bearer; a session cookie alone is refused. API answers are
// envelopes with HTTP 200; transport problems are HTTP errors whose body is
// {"error": "plain message"}. HEAD is answered as GET without the body.
//
// Threads: the event threads read, parse and write every connection and
// answer what cannot block (static files, the session check, refusals).
// Module calls (Lane::kCall) may wait for a module's lock for as long as the
// platform's lock timeout: they run on a bounded pool of workers of their
// own. Everything else that may block (logins, /api/info, /metrics: Lane::
// kWorker, and the calls that take no lock, such as the event log and the
// directory's status, which a kCall route's chooser names) runs on a small
// pool of its own, so it never waits behind calls that wait for a lock. The
// connection waits, suspended, without holding an event thread (except that
// a request alone in flight is waited for, awake, for up to half a
// millisecond). A full pool queue is answered 503 with Retry-After.
//
// Adding a route: call AddRoute before Bind, e.g.
//   server.AddRoute("GET", "/healthz", HttpServer::Lane::kEvent,
//                   [](const HttpRequest&, HttpResponse& res) { ... });
// A handler fills in `res` (SendJson / SendError help); the core adds the
// security headers, Cache-Control: no-store under /api, gzip when it pays,
// and writes the access log line. kEvent handlers must never block.
//
// Ownership: borrows the options and the module set, which must outlive it.
// Thread-safety: AddRoute and Bind before Run; Run blocks until Stop (which
// may be called from any thread, e.g. a signal thread) has drained the
// requests in flight.
#ifndef TAVO_SERVER_HTTP_SERVER_H_
#define TAVO_SERVER_HTTP_SERVER_H_

#include <functional>
#include <memory>
#include <string>

#include "api/module_loader.h"
#include "api/status.h"
#include "auth/login_throttle.h"
#include "cli/options.h"
#include "http/http_message.h"
#include "privsep/account_ops.h"

namespace tavo_server {

class HttpServer {
 public:
  enum class Lane { kEvent, kWorker, kCall };
  using Handler = std::function<void(const HttpRequest&, HttpResponse&)>;
  // For a kCall route: true when the request's call takes no lock, so that
  // it may run beside the kWorker routes. Runs on an event thread: it must
  // be quick and never block.
  using LockFree = std::function<bool(const HttpRequest&)>;
  // Threads of the pool for everything but the module calls.
  static constexpr int kQuickWorkers = 2;

  // Account work (logins, re-checks, module calls) goes through `ops`, in this
  // process or in a privileged one (privsep/); it must outlive the server.
  HttpServer(const ServeOptions& options, AccountOps& ops);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Serves `method` ("GET" also answers HEAD) on exactly `path`.
  void AddRoute(const std::string& method, const std::string& path, Lane lane, Handler handler,
                LockFree lock_free = nullptr);

  // Binds the listening socket; *port receives the port actually bound.
  // When serving HTTPS, reads and checks the certificate and key first.
  Status Bind(int* port);
  // Presents this certificate chain and key (PEM) to every TLS handshake from
  // now on, once they pass the checks of TlsCredentials::Install; a pair that
  // fails them changes nothing. Connections already open keep theirs. Any
  // thread, after Bind.
  Status ReloadTls(const std::string& cert_pem, const std::string& key_pem);
  // Serves until Stop. Returns OK when every request in flight finished
  // within the stop time, else an error saying how many did not.
  Status Run();
  // Stops accepting connections and makes Run return once the requests in
  // flight are answered (or the stop time has passed).
  void Stop();
  // Whether the event threads are serving: hands them a connection of our
  // own (a socket pair, so no client limit applies) and waits up to
  // `timeout_ms` until it is answered: a whole GET /healthz over plain HTTP,
  // its being taken up by an event thread over TLS. False before Run serves
  // and after it stopped. Any thread; one probe at a time.
  bool ProbeEventLoop(int timeout_ms);

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

// The login limits that `o` sets: the front's throttle, and the account
// side's own count (privsep/login_limit.h).
ThrottleLimits LoginLimits(const ServeOptions& o);

}  // namespace tavo_server

#endif  // TAVO_SERVER_HTTP_SERVER_H_
