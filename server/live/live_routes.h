// LiveRoutes: GET /api/live, the change stream of the admin page
// (live/notice_hub.h), and the watch of the root that feeds it
// (live/change_watch.h).
//
// Who may open one: a request that carries the session token in a header
// (X-Tavo-Token or Authorization: Bearer), like every call that reveals data;
// the session cookie is never looked at, so an EventSource or a link of any
// page, which can send only the cookie, gets 401. A request that a browser
// marks as coming from another site (Origin not this server's, or
// Sec-Fetch-Site other than same-origin or none) is refused with 403 before
// the token is looked at: another site's page cannot read the stream, and a
// token it may have stolen gains it no stream from the visitor's browser.
//
// The watch and the hub live while the server serves (a companion of the
// HTTP core): in a split server, in the unprivileged front.
//
// Ownership: borrows the options and the auth routes, which must outlive it.
// Thread-safety: any thread, once registered.
#ifndef TAVO_SERVER_LIVE_LIVE_ROUTES_H_
#define TAVO_SERVER_LIVE_LIVE_ROUTES_H_

#include <memory>
#include <mutex>

#include "auth/auth_routes.h"
#include "auth/site_check.h"
#include "cli/options.h"
#include "http/http_server.h"
#include "live/change_watch.h"
#include "live/notice_hub.h"

namespace tavo_server {

class LiveRoutes {
 public:
  LiveRoutes(const ServeOptions& options, AuthRoutes& auth);
  ~LiveRoutes();
  LiveRoutes(const LiveRoutes&) = delete;
  LiveRoutes& operator=(const LiveRoutes&) = delete;

  // Adds the route, the companion that runs the watch and the hub, and the
  // logout hook that ends a session's streams.
  void Register(HttpServer& server);

 private:
  void Stream(const HttpRequest& req, HttpResponse& res);
  void Start();
  void EndStreams();
  void Stop();

  const ServeOptions& options_;
  AuthRoutes& auth_;
  const SitePolicy site_;
  std::mutex mu_;  // guards the hub pointer against Stop
  std::unique_ptr<NoticeHub> hub_;
  std::unique_ptr<ChangeWatch> watch_;
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_LIVE_LIVE_ROUTES_H_
