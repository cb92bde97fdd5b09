// ApiRoutes: the module calls and the server's own figures over HTTP.
//
// Routes (Register), each for a logged-in session's token (AuthRoutes):
//   GET  /api/info          the loaded APIs and methods
//   POST /api               {"api", "version", "method", "params"}
//   GET  /api?api=..&version=..&method=..&NAME=VALUE..
//   GET  /metrics           the server's counters and the account side's
// API answers are envelopes with HTTP 200; a call whose API, version or
// method is unknown is 404, a body that is not a call 400. Module calls may
// wait for a module's lock: they run on the call workers, except the calls
// that take no lock (the event log's list, the directory's status), which
// run beside the logins and never wait behind a lock.
//
// Ownership: borrows the account side, the auth routes and the metrics,
// which must outlive it. Thread-safety: any thread, at once.
#ifndef TAVO_SERVER_API_API_ROUTES_H_
#define TAVO_SERVER_API_API_ROUTES_H_

#include <json/value.h>

#include "auth/auth_routes.h"
#include "http/http_message.h"
#include "http/http_server.h"
#include "http/metrics.h"
#include "privsep/account_ops.h"

namespace tavo_server {

class ApiRoutes {
 public:
  ApiRoutes(AccountOps& ops, AuthRoutes& auth, Metrics& metrics)
      : ops_(ops), auth_(auth), metrics_(metrics) {}
  ApiRoutes(const ApiRoutes&) = delete;
  ApiRoutes& operator=(const ApiRoutes&) = delete;

  void Register(HttpServer& server);

  // Whether the call a POST or GET /api names takes no lock. Runs on an
  // event thread: looks at a small body only.
  static bool CallTakesNoLock(const HttpRequest& req);

 private:
  void Info(const HttpRequest& req, HttpResponse& res);
  void Post(const HttpRequest& req, HttpResponse& res);
  void Get(const HttpRequest& req, HttpResponse& res);
  void MetricsText(const HttpRequest& req, HttpResponse& res);
  // Checks the envelope {"api", "version", "method", "params"} (400 when it
  // is not one) and runs the call for the session's account; the call itself
  // rechecks the account (once per request).
  void Serve(const HttpRequest& req, HttpResponse& res, const SessionStore::Session& s,
             const Json::Value& envelope);
  // The envelope a GET /api names.
  static Json::Value EnvelopeOfQuery(const HttpRequest& req);
  // Starts a call without blocking (HttpServer::Starter): when the account
  // side takes calls to answer later, a session's well-formed call goes to it
  // at once; anything else (a body that is no call, a large body, sessions
  // whose end the account side must hear first) declines, for a worker.
  bool Start(const HttpRequest& req, HttpResponse& res, HttpServer::Done done);
  // Fills in the answer to `call` (only its API, version and method are
  // read). `may_block`: on a worker, which may tell the account side of a
  // session it ends at once.
  void Respond(const HttpRequest& req, HttpResponse& res, const SessionStore::Session& s,
               const ApiCall& call, const AccountOps::Answer& answer, bool may_block);

  AccountOps& ops_;
  AuthRoutes& auth_;
  Metrics& metrics_;
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_API_API_ROUTES_H_
