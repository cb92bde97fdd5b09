// HttpServer: the HTTP front of `tavo serve`.
//
// Routes:
//   POST /api/auth/login    {"account", "password"} -> session cookie + token
//   POST /api/auth/logout   ends the session (token header or cookie)
//   GET  /api/auth/session  with the cookie: is the session alive, and its token
//   GET  /api/info          the loaded APIs and methods            (token)
//   POST /api               {"api", "version", "method", "params"} (token)
//   GET  /api?api=..&version=..&method=..&NAME=VALUE..             (token)
//   GET  anything else      a file of the admin page folder
// "(token)": the request must carry the session token in X-Tavo-Token or in
// Authorization: Bearer; a session cookie alone is refused. API answers are
// envelopes with HTTP 200; transport problems are HTTP errors whose body is
// {"error": "plain message"}.
//
// Ownership: borrows the options and the module set, which must outlive it.
// Thread-safety: Start blocks serving on the worker threads until Stop, which
// may be called from another thread.
#ifndef TAVO_SERVER_HTTP_SERVER_H_
#define TAVO_SERVER_HTTP_SERVER_H_

#include <memory>
#include <string>

#include "module_loader.h"
#include "options.h"
#include "status.h"

namespace tavo_server {

class HttpServer {
 public:
  HttpServer(const ServeOptions& options, const ModuleSet& modules);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Binds the listening socket; *port receives the port actually bound.
  Status Bind(int* port);
  // Serves until Stop; false when the server failed.
  bool Run();
  void Stop();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_HTTP_SERVER_H_
