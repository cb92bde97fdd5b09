// Internal to the HTTP server: the state its route handlers share and the
// helpers they use. Not part of the server's interface.
//
// Thread-safety: handlers run on the worker threads at once; SessionStore and
// LoginGate lock themselves, everything else is read-only while serving.
#ifndef TAVO_SERVER_HTTP_IMPL_H_
#define TAVO_SERVER_HTTP_IMPL_H_

#include <httplib.h>

#include <string>

#include "bounded_server.h"
#include "http_server.h"
#include "login_gate.h"
#include "sessions.h"
#include "static_files.h"

namespace tavo_server {

constexpr const char kSessionCookie[] = "tavo_session";
constexpr const char kDeviceCookie[] = "tavo_device";

struct HttpServer::Impl {
  Impl(const ServeOptions& o, const ModuleSet& m);

  const ServeOptions& options;
  const ModuleSet& modules;
  BoundedServer http;
  SessionStore sessions;
  LoginGate logins;
  StaticFiles files;

  // Route handlers (http_auth.cpp, http_api.cpp, http_server.cpp).
  void Login(const httplib::Request& req, httplib::Response& res);
  void Logout(const httplib::Request& req, httplib::Response& res);
  void SessionInfo(const httplib::Request& req, httplib::Response& res);
  void ApiInfo(const httplib::Request& req, httplib::Response& res);
  void ApiPost(const httplib::Request& req, httplib::Response& res);
  void ApiGet(const httplib::Request& req, httplib::Response& res);
  void StaticFile(const httplib::Request& req, httplib::Response& res);

  // Finds the session of the request's token (X-Tavo-Token or Authorization:
  // Bearer) and checks that its account is still a valid administrator. On
  // failure answers 401 or 403 and returns false.
  bool Authorize(const httplib::Request& req, httplib::Response& res, SessionStore::Session* s);
};

// Answers an HTTP error with the body {"error": message}.
void SendError(httplib::Response& res, int status, const std::string& message);
// Answers HTTP 200 with a JSON body.
void SendJson(httplib::Response& res, const Json::Value& body);
// The value of cookie `name` in the request's Cookie headers, or "".
std::string CookieValue(const httplib::Request& req, const std::string& name);
// The token of X-Tavo-Token, else of "Authorization: Bearer TOKEN", or "".
std::string RequestToken(const httplib::Request& req);

}  // namespace tavo_server

#endif  // TAVO_SERVER_HTTP_IMPL_H_
