#include "auth/auth_routes.h"

#include <json/value.h>
#include <strings.h>

#include "api/json_util.h"
#include "auth/random.h"
#include "tavo/user.h"

namespace tavo_server {
namespace {

std::string SessionCookie(const std::string& id, int max_age, bool tls) {
  std::string c = std::string(kSessionCookie) + "=" + id + "; Path=/; HttpOnly; SameSite=Strict";
  if (max_age >= 0) c += "; Max-Age=" + std::to_string(max_age);
  if (tls) c += "; Secure";
  return c;
}

Json::Value SessionData(const SessionStore::Session& s, int idle) {
  Json::Value data(Json::objectValue);
  data["token"] = s.token;
  data["account"] = s.account;
  data["idle_timeout"] = idle;
  Json::Value out(Json::objectValue);
  out["success"] = true;
  out["data"] = data;
  return out;
}

// True when the body is declared as JSON. A form of another site can only
// send form or plain-text bodies without asking first, so this keeps other
// sites from trying passwords through a visitor's browser.
bool IsJsonBody(const HttpRequest& req) {
  std::string type = req.Header("Content-Type");
  type = type.substr(0, type.find(';'));
  while (!type.empty() && type.back() == ' ') type.pop_back();
  return strcasecmp(type.c_str(), "application/json") == 0;
}

}  // namespace

std::string CookieValue(const HttpRequest& req, const std::string& name) {
  for (const std::string& header : req.Headers("Cookie")) {
    size_t pos = 0;
    while (pos < header.size()) {
      size_t end = header.find(';', pos);
      if (end == std::string::npos) end = header.size();
      std::string part = header.substr(pos, end - pos);
      size_t b = part.find_first_not_of(' ');
      if (b != std::string::npos) part = part.substr(b);
      if (part.compare(0, name.size() + 1, name + "=") == 0) return part.substr(name.size() + 1);
      pos = end + 1;
    }
  }
  return "";
}

std::string RequestToken(const HttpRequest& req) {
  std::string token = req.Header("X-Tavo-Token");
  if (!token.empty()) return token;
  const std::string auth = req.Header("Authorization");
  static const std::string kBearer = "Bearer ";
  if (auth.size() > kBearer.size() &&
      strncasecmp(auth.c_str(), kBearer.c_str(), kBearer.size()) == 0)
    return auth.substr(kBearer.size());
  return "";
}

void AuthRoutes::EndGrants() {
  for (const SessionStore::Session& s : sessions_.TakeEnded())
    ops_.Logout(LoginIdentity{s.account, s.stamp, s.grant});
}

ThrottleLimits LoginLimits(const ServeOptions& o) {
  ThrottleLimits l;
  l.per_pair = l.per_device = l.free_per_account = o.login_max_failures;
  l.per_address = 4 * o.login_max_failures;
  l.window = std::chrono::seconds(o.login_window);
  return l;
}

AuthRoutes::AuthRoutes(const ServeOptions& options, AccountOps& ops, Metrics& metrics)
    : options_(options),
      ops_(ops),
      metrics_(metrics),
      sessions_(std::chrono::seconds(options.session_idle),
                std::chrono::seconds(options.session_lifetime),
                static_cast<size_t>(options.max_sessions)),
      logins_(LoginLimits(options), RandomHex(32), std::chrono::hours(24 * 30)) {}

void AuthRoutes::Register(HttpServer& server) {
  using Lane = HttpServer::Lane;
  using Req = const HttpRequest&;
  using Res = HttpResponse&;
  // A login hashes a password, and a logout tells the account side: a worker
  // answers. The session check only looks in memory.
  server.AddRoute("POST", "/api/auth/login", Lane::kWorker, [this](Req q, Res r) { Login(q, r); });
  server.AddRoute("POST", "/api/auth/logout", Lane::kWorker,
                  [this](Req q, Res r) { Logout(q, r); });
  server.AddRoute("GET", "/api/auth/session", Lane::kEvent,
                  [this](Req q, Res r) { SessionInfo(q, r); });
}

bool AuthRoutes::FindSession(const HttpRequest& req, HttpResponse& res, SessionStore::Session* s) {
  const std::string token = RequestToken(req);
  if (token.empty()) {
    SendError(res, 401,
              "not logged in: send the session token in X-Tavo-Token "
              "or Authorization: Bearer");
    return false;
  }
  if (!sessions_.FindByToken(token, s)) {
    SendError(res, 401, "not logged in: the session has ended; log in again");
    return false;
  }
  res.log.account = s->account;
  return true;
}

bool AuthRoutes::Authorize(const HttpRequest& req, HttpResponse& res, SessionStore::Session* s,
                           bool recheck) {
  EndGrants();
  if (!FindSession(req, res, s)) return false;
  // Membership may have been withdrawn, or the password changed, since the login.
  return !recheck ||
         !Refuse(req, res, *s, ops_.Recheck(LoginIdentity{s->account, s->stamp, s->grant}));
}

namespace {

void SendEnded(HttpResponse& res, const SessionStore::Session& s) {
  SendError(res, 401,
            "the session has ended: the account " + s.account +
                " is no longer a valid administrator or its password changed");
}

}  // namespace

bool AuthRoutes::Refuse(const HttpRequest& req, HttpResponse& res, const SessionStore::Session& s,
                        LoginResult r) {
  switch (r) {
    case LoginResult::kOk:
      return false;
    case LoginResult::kUnavailable:
      SendError(res, 500, "the account files cannot be read");
      return true;
    case LoginResult::kDenied:
      break;
  }
  SessionStore::Session ended;
  if (sessions_.Remove(RequestToken(req), &ended))
    ops_.Logout(LoginIdentity{ended.account, ended.stamp, ended.grant});
  SendEnded(res, s);
  return true;
}

AuthRoutes::Quick AuthRoutes::AuthorizeQuick(const HttpRequest& req, HttpResponse& res,
                                             SessionStore::Session* s) {
  if (sessions_.HasEnded()) return Quick::kBlocked;
  return FindSession(req, res, s) ? Quick::kPass : Quick::kRefused;
}

void AuthRoutes::RefuseQuick(const HttpRequest& req, HttpResponse& res,
                             const SessionStore::Session& s, LoginResult r) {
  if (r == LoginResult::kUnavailable) {
    Refuse(req, res, s, r);
    return;
  }
  sessions_.Remove(RequestToken(req), nullptr, /*report=*/true);
  SendEnded(res, s);
}

void AuthRoutes::Login(const HttpRequest& req, HttpResponse& res) {
  Json::Value body;
  if (!IsJsonBody(req)) {
    SendError(res, 400, "send the login with Content-Type: application/json");
    return;
  }
  if (!ParseJson(req.body, &body) || !body.isObject() || !body["account"].isString() ||
      !body["password"].isString()) {
    SendError(res, 400, "send {\"account\": STRING, \"password\": STRING}");
    return;
  }
  // A NUL would cut the name short below while the throttle counts it apart.
  std::string text_error;
  if (!CheckText(body, &text_error)) {
    SendError(res, 400, "account and password: " + text_error);
    return;
  }
  LoginGate::Attempt attempt{body["account"].asString(), body["password"].asString(),
                             req.remote_addr, CookieValue(req, kDeviceCookie)};
  res.log.account = attempt.account;
  LoginGate::Outcome outcome = logins_.Try(attempt, ops_);
  if (outcome.status != 200) {
    metrics_.FailedLogin();
    if (outcome.retry_after > 0) res.SetHeader("Retry-After", std::to_string(outcome.retry_after));
    SendError(res, outcome.status, outcome.error);
    return;
  }
  res.log.account = outcome.who.name;
  SessionStore::Session s;
  const bool created = sessions_.Create(outcome.who.name, outcome.who.stamp, &s, outcome.who.grant);
  EndGrants();  // of sessions dropped to make room, among others
  if (!created) {
    SendError(res, 500, "no session could be started");
    return;
  }
  res.AddHeader("Set-Cookie", SessionCookie(s.id, -1, options_.tls()));
  if (!outcome.device_cookie.empty()) {
    res.AddHeader("Set-Cookie", std::string(kDeviceCookie) + "=" + outcome.device_cookie +
                                    "; Path=/api/auth; HttpOnly; SameSite=Strict; Max-Age=" +
                                    std::to_string(logins_.devices().lifetime().count()) +
                                    (options_.tls() ? "; Secure" : ""));
  }
  SendJson(res, SessionData(s, options_.session_idle));
}

void AuthRoutes::Logout(const HttpRequest& req, HttpResponse& res) {
  std::string key = RequestToken(req);
  if (key.empty()) key = CookieValue(req, kSessionCookie);
  SessionStore::Session ended;
  // The account process ends the session's grant too, and the session's
  // change streams end now.
  if (!key.empty() && sessions_.Remove(key, &ended)) {
    ops_.Logout(LoginIdentity{ended.account, ended.stamp, ended.grant});
    for (const auto& ended_hook : on_logout_) ended_hook(ended.token);
  }
  res.AddHeader("Set-Cookie", SessionCookie("", 0, options_.tls()));
  Json::Value out(Json::objectValue);
  out["success"] = true;
  out["data"] = Json::Value(Json::objectValue);
  SendJson(res, out);
}

void AuthRoutes::SessionInfo(const HttpRequest& req, HttpResponse& res) {
  SessionStore::Session s;
  const std::string token = RequestToken(req);
  bool found = token.empty() ? sessions_.FindById(CookieValue(req, kSessionCookie), &s)
                             : sessions_.FindByToken(token, &s);
  if (!found) {
    SendError(res, 401, "not logged in");
    return;
  }
  res.log.account = s.account;
  SendJson(res, SessionData(s, options_.session_idle));
}

}  // namespace tavo_server
