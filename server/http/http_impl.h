// Internal to the HTTP server: the state its route handlers and the event
// glue share, and the helpers they use. Not part of the server's interface.
//
// Thread-safety: handlers run on event and worker threads at once;
// StaticCache, Metrics and AccessLog lock themselves; the routes and options
// are read-only while serving.
#ifndef TAVO_SERVER_HTTP_IMPL_H_
#define TAVO_SERVER_HTTP_IMPL_H_

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "auth/site_check.h"
#include "http/access_log.h"
#include "http/conn_deadlines.h"
#include "http/http_server.h"
#include "http/metrics.h"
#include "http/worker_pool.h"
#include "static/static_cache.h"
#include "static/static_files.h"

struct MHD_Daemon;

namespace tavo_server {

struct HttpServer::Impl {
  explicit Impl(const ServeOptions& o);
  ~Impl();

  struct Route {
    std::string method, path;
    Lane lane;
    Handler handler;
    LockFree lock_free;  // kCall only; null: every call may wait
    Starter start;       // kCall only; null: always on the pool
  };

  const ServeOptions& options;
  StaticFiles files;
  StaticCache cache;
  Metrics metrics;
  std::string openapi_etag;  // of options.openapi_json
  std::vector<Route> routes;

  // Serving state (http_server.cpp).
  std::unique_ptr<AccessLog> log;
  std::unique_ptr<ConnDeadlines> deadlines;
  std::unique_ptr<Executor> workers;  // module calls (Lane::kCall)
  std::unique_ptr<Executor> quick;    // Lane::kWorker, and calls that take no lock
  MHD_Daemon* daemon = nullptr;       // set and cleared by Run under probe_mu
  // The event-loop probe (event_probe.cpp): the descriptor of the probe's
  // connection, and whether an event thread has taken it up.
  std::mutex probe_mu;
  std::atomic<int> probe_fd{-1};
  std::atomic<bool> probe_seen{false};
  int listen_fd = -1;
  std::string keep_alive_header;      // "timeout=N"
  SitePolicy site;                    // Host and Origin
  std::atomic<int> connections{0};    // open connections
  std::atomic<int> in_flight{0};      // requests whose head has arrived, not yet answered
  std::atomic<int> streams{0};        // of them, streamed answers being sent
  std::vector<Companion> companions;  // AddCompanion
  std::atomic<bool> stopping{false};
  std::mutex stop_mu;
  std::condition_variable stop_cv;

  // The route of a request (HEAD matches GET routes), or null.
  const Route* Find(const HttpRequest& req) const;
  // The one place where a parsed request becomes a response: runs the route
  // (or the static files, or a refusal), then Finish. Runs on the route's lane.
  void Handle(const Route* route, const HttpRequest& req, HttpResponse& res);
  // The checks of every request before its route (the Host and a POST's
  // Origin): false, with `res` filled in, when the request is refused.
  bool Admit(const HttpRequest& req, HttpResponse& res);
  // Headers every answer carries, no-store under /api, and gzip when the
  // client accepts it and the body is large enough.
  void Finish(const HttpRequest& req, HttpResponse& res);

  // Stops the companions, the last added first.
  void StopCompanions();
  // The pool that runs a request of a worker route.
  Executor* PoolFor(const Route& route, const HttpRequest& req) const;

  void StaticFile(const HttpRequest& req, HttpResponse& res);
  void Health(const HttpRequest& req, HttpResponse& res);
  void OpenApi(const HttpRequest& req, HttpResponse& res);
};

// A short plain reason for an HTTP status, e.g. "request body too large".
const char* Reason(int status);

}  // namespace tavo_server

#endif  // TAVO_SERVER_HTTP_IMPL_H_
