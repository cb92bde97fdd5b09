// AuthRoutes: logins, logouts and sessions of `tavo serve`, and the check
// that every other route runs on a request before serving it.
//
// Routes (Register):
//   POST /api/auth/login    {"account", "password"} -> session cookie + token
//   POST /api/auth/logout   ends the session (token header or cookie)
//   GET  /api/auth/session  with the cookie: is the session alive, and its token
// Every session it starts holds a grant of the account side (AccountOps);
// when a session ends, by logout, idleness or for room, the account side is
// told so that the grant ends too.
//
// Ownership: borrows the options, the account side and the metrics, which
// must outlive it. Thread-safety: any thread, at once, once registered.
#ifndef TAVO_SERVER_AUTH_AUTH_ROUTES_H_
#define TAVO_SERVER_AUTH_AUTH_ROUTES_H_

#include <functional>
#include <string>
#include <vector>

#include "auth/login_gate.h"
#include "auth/login_throttle.h"
#include "auth/sessions.h"
#include "cli/options.h"
#include "http/http_message.h"
#include "http/http_server.h"
#include "http/metrics.h"
#include "privsep/account_ops.h"

namespace tavo_server {

constexpr const char kSessionCookie[] = "tavo_session";
constexpr const char kDeviceCookie[] = "tavo_device";

class AuthRoutes {
 public:
  AuthRoutes(const ServeOptions& options, AccountOps& ops, Metrics& metrics);
  AuthRoutes(const AuthRoutes&) = delete;
  AuthRoutes& operator=(const AuthRoutes&) = delete;

  void Register(HttpServer& server);

  // Finds the session of the request's token (X-Tavo-Token or Authorization:
  // Bearer) and, unless `recheck` is false, checks that its account is still
  // a valid administrator. On failure answers 401 or 500 and returns false.
  // A cookie alone never passes.
  bool Authorize(const HttpRequest& req, HttpResponse& res, SessionStore::Session* s,
                 bool recheck = true);
  // Answers a session whose account the account side refused or could not
  // check (401 ending the session, or 500). False when `r` is kOk.
  bool Refuse(const HttpRequest& req, HttpResponse& res, const SessionStore::Session& s,
              LoginResult r);
  // Authorize without the re-check and without blocking, for an event
  // thread or the channel's reader: kBlocked when it would have to tell the
  // account side of ended sessions first (the caller then authorizes on a
  // worker).
  enum class Quick { kPass, kRefused, kBlocked };
  Quick AuthorizeQuick(const HttpRequest& req, HttpResponse& res, SessionStore::Session* s);
  // Refuse, without blocking: an ended session's grant is told to the
  // account side at the next Authorize.
  void RefuseQuick(const HttpRequest& req, HttpResponse& res, const SessionStore::Session& s,
                   LoginResult r);
  size_t SessionCount() { return sessions_.Size(); }
  // The live sessions (a test starts one without a password).
  SessionStore& sessions() { return sessions_; }
  // Whether the session of `token` is still alive, without counting this as
  // a use: for the open change streams, which must not keep an unattended
  // page's session alive.
  bool SessionAlive(const std::string& token) { return sessions_.Alive(token); }
  // Called with a session's token when it ends by a logout. Before serving.
  void OnLogout(std::function<void(const std::string& token)> ended) {
    on_logout_.push_back(std::move(ended));
  }

 private:
  void Login(const HttpRequest& req, HttpResponse& res);
  void Logout(const HttpRequest& req, HttpResponse& res);
  void SessionInfo(const HttpRequest& req, HttpResponse& res);
  // The session of the request's token; on failure answers 401 and returns
  // false.
  bool FindSession(const HttpRequest& req, HttpResponse& res, SessionStore::Session* s);
  // Tells the account side of the sessions that ended without a logout (a
  // call on the channel: never on an event thread).
  void EndGrants();

  const ServeOptions& options_;
  AccountOps& ops_;
  Metrics& metrics_;
  SessionStore sessions_;
  LoginGate logins_;
  std::vector<std::function<void(const std::string&)>> on_logout_;
};

// The login limits that `o` sets: the front's throttle, and the account
// side's own count (privsep/login_limit.h).
ThrottleLimits LoginLimits(const ServeOptions& o);

// The value of cookie `name` in the request's Cookie headers, or "".
std::string CookieValue(const HttpRequest& req, const std::string& name);
// The token of X-Tavo-Token, else of "Authorization: Bearer TOKEN", or "".
std::string RequestToken(const HttpRequest& req);

}  // namespace tavo_server

#endif  // TAVO_SERVER_AUTH_AUTH_ROUTES_H_
