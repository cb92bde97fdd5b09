// Internal to the HTTP server: the state its route handlers and the event
// glue share, and the helpers they use. Not part of the server's interface.
//
// Thread-safety: handlers run on event and worker threads at once;
// SessionStore, LoginGate, StaticCache and AccessLog lock themselves; the
// routes and options are read-only while serving.
#ifndef TAVO_SERVER_HTTP_IMPL_H_
#define TAVO_SERVER_HTTP_IMPL_H_

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "auth/login_gate.h"
#include "auth/sessions.h"
#include "auth/site_check.h"
#include "http/access_log.h"
#include "http/conn_deadlines.h"
#include "http/http_server.h"
#include "http/metrics.h"
#include "http/static_cache.h"
#include "http/static_files.h"
#include "http/worker_pool.h"
#include "live/change_watch.h"
#include "live/notice_hub.h"

struct MHD_Daemon;

namespace tavo_server {

constexpr const char kSessionCookie[] = "tavo_session";
constexpr const char kDeviceCookie[] = "tavo_device";

struct HttpServer::Impl {
  Impl(const ServeOptions& o, AccountOps& a);
  ~Impl();

  struct Route {
    std::string method, path;
    Lane lane;
    Handler handler;
    LockFree lock_free;  // kCall only; null: every call may wait
  };

  const ServeOptions& options;
  AccountOps& ops;  // logins, re-checks and module calls
  SessionStore sessions;
  LoginGate logins;
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
  std::string keep_alive_header;    // "timeout=N"
  SitePolicy site;                  // Host and Origin
  std::atomic<int> connections{0};  // open connections
  std::atomic<int> in_flight{0};    // requests whose head has arrived, not yet answered
  std::atomic<int> streams{0};      // of them, change streams being sent
  // The change streams and their watch (live/), while Run serves.
  std::unique_ptr<NoticeHub> live;
  std::unique_ptr<ChangeWatch> watch;
  std::atomic<bool> stopping{false};
  std::mutex stop_mu;
  std::condition_variable stop_cv;

  // The route of a request (HEAD matches GET routes), or null.
  const Route* Find(const HttpRequest& req) const;
  // The one place where a parsed request becomes a response: runs the route
  // (or the static files, or a refusal), then Finish. Runs on the route's lane.
  void Handle(const Route* route, const HttpRequest& req, HttpResponse& res);
  // Headers every answer carries, no-store under /api, and gzip when the
  // client accepts it and the body is large enough.
  void Finish(const HttpRequest& req, HttpResponse& res);

  // The pool that runs a request of a worker route.
  Executor* PoolFor(const Route& route, const HttpRequest& req) const;

  // The routes that register themselves (auth/http_auth.cpp, api/http_api.cpp).
  void AddAuthRoutes();
  void AddApiRoutes();
  void AddLiveRoutes();
  // Starts the change watch and the stream hub (live/http_live.cpp) before
  // the event threads start; StopLive after they stopped.
  void StartLive();
  void StopLive();
  // Route handlers (auth/http_auth.cpp, api/http_api.cpp, http_core.cpp).
  void Login(const HttpRequest& req, HttpResponse& res);
  void Logout(const HttpRequest& req, HttpResponse& res);
  void SessionInfo(const HttpRequest& req, HttpResponse& res);
  void ApiInfo(const HttpRequest& req, HttpResponse& res);
  void ApiPost(const HttpRequest& req, HttpResponse& res);
  void ApiGet(const HttpRequest& req, HttpResponse& res);
  // Whether the call a POST or GET /api names takes no lock (the server's
  // own reads: the event log, the directories' status).
  static bool CallTakesNoLock(const HttpRequest& req);
  void StaticFile(const HttpRequest& req, HttpResponse& res);
  void Health(const HttpRequest& req, HttpResponse& res);
  void OpenApi(const HttpRequest& req, HttpResponse& res);
  void MetricsText(const HttpRequest& req, HttpResponse& res);
  void LiveStream(const HttpRequest& req, HttpResponse& res);

  // Tells the account side of the sessions that ended without a logout, so
  // that their grants end too (a call on the channel: workers only).
  void EndGrants();
  // Finds the session of the request's token (X-Tavo-Token or Authorization:
  // Bearer) and, unless `recheck` is false, checks that its account is still
  // a valid administrator. On failure answers 401 or 500 and returns false.
  // Ends the grants of ended sessions first (EndGrants).
  bool Authorize(const HttpRequest& req, HttpResponse& res, SessionStore::Session* s,
                 bool recheck = true);
  // Answers a session whose account the recheck refused or could not check
  // (401 ending the session, or 500). False when `r` is kOk.
  bool Refuse(const HttpRequest& req, HttpResponse& res, const SessionStore::Session& s,
              LoginResult r);
  // Checks the envelope {"api", "version", "method", "params"} (400 when it
  // is not one) and runs the call for the session's account; the call itself
  // rechecks the account (once per request).
  void Serve(const HttpRequest& req, HttpResponse& res, const SessionStore::Session& s,
             const Json::Value& envelope);
};

// A short plain reason for an HTTP status, e.g. "request body too large".
const char* Reason(int status);
// The value of cookie `name` in the request's Cookie headers, or "".
std::string CookieValue(const HttpRequest& req, const std::string& name);
// The token of X-Tavo-Token, else of "Authorization: Bearer TOKEN", or "".
std::string RequestToken(const HttpRequest& req);

}  // namespace tavo_server

#endif  // TAVO_SERVER_HTTP_IMPL_H_
