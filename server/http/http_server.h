// HttpServer: the HTTP core of `tavo serve`, transport only: an event-driven
// core on libmicrohttpd (epoll, one event thread per core by default), its
// pools, limits, TLS, static files and counters.
//
// Its own routes:
//   GET  /healthz           {"status": "ok"}
//   GET  /api/openapi.json  the API's description made at start
//   GET  anything else      a file of the admin page folder
// The routes of logins and sessions (auth/auth_routes.h), of the module
// calls (api/api_routes.h) and of the change stream (live/live_routes.h)
// register themselves with AddRoute. A handler may answer with a body that is
// written as it comes (HttpResponse::stream, http/stream_body.h): the
// connection then waits suspended, holding no thread. Transport
// problems are HTTP errors whose body is {"error": "plain message"}. HEAD is
// answered as GET without the body. A request naming another host than the
// server's is 421, and a POST from another origin 403, before any route.
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
// millisecond). A full pool queue is answered 503 with Retry-After. A kCall
// route with a Starter (the split server's calls, which run in another
// process) is first offered to it on the event thread: a call it starts
// holds no worker while it runs, and its answer is finished and written on
// an event thread.
//
// Adding a route: call AddRoute before Bind, e.g.
//   server.AddRoute("GET", "/healthz", HttpServer::Lane::kEvent,
//                   [](const HttpRequest&, HttpResponse& res) { ... });
// A handler fills in `res` (SendJson / SendError help); the core adds the
// security headers, Cache-Control: no-store under /api, gzip when it pays,
// and writes the access log line. kEvent handlers must never block.
//
// Ownership: borrows the options, which must outlive it.
// Thread-safety: AddRoute and Bind before Run; Run blocks until Stop (which
// may be called from any thread, e.g. a signal thread) has drained the
// requests in flight.
#ifndef TAVO_SERVER_HTTP_SERVER_H_
#define TAVO_SERVER_HTTP_SERVER_H_

#include <functional>
#include <memory>
#include <string>

#include "api/status.h"
#include "cli/options.h"
#include "http/http_message.h"
#include "http/metrics.h"

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

  explicit HttpServer(const ServeOptions& options);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // For a kCall route: starts the request's work elsewhere (the privileged
  // process) on the event thread, without blocking, and returns true; the
  // work then fills in `res` and calls `done` once, from any thread. False
  // when it cannot start without blocking: the request then runs on the
  // route's pool as usual. Either way `res` is finished (headers, gzip) on
  // an event thread.
  using Done = std::function<void()>;
  using Starter = std::function<bool(const HttpRequest&, HttpResponse&, Done)>;

  // Serves `method` ("GET" also answers HEAD) on exactly `path`.
  void AddRoute(const std::string& method, const std::string& path, Lane lane, Handler handler,
                LockFree lock_free = nullptr, Starter start = nullptr);

  // Work that lives while Run serves (the change watch and its streams):
  // `start` runs before the event threads start, `end_streams` when a stop
  // begins (streams have no end to wait for), `stop` after the event threads
  // ended. Each may be empty. Before Run.
  struct Companion {
    std::function<void()> start, end_streams, stop;
  };
  void AddCompanion(Companion companion);

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
  // The counters of the answers, which /metrics renders. Lives as long as
  // the server.
  Metrics& metrics();

  struct Impl;
  // The core's internals, for the fuzz target that drives a parsed request
  // through them without sockets.
  Impl& internals() { return *impl_; }

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_HTTP_SERVER_H_
