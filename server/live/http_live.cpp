// GET /api/live: the change stream of the admin page (live/notice_hub.h), and
// the watch that feeds it (live/change_watch.h).
//
// Who may open one: a request that carries the session token in a header
// (X-Tavo-Token or Authorization: Bearer), like every call that reveals data;
// the session cookie is never looked at, so an EventSource or a link of any
// page, which can send only the cookie, gets 401. A request that a browser
// marks as coming from another site (Origin not this server's, or
// Sec-Fetch-Site other than same-origin or none) is refused with 403 before
// the token is looked at: another site's page cannot read the stream, and a
// token it may have stolen gains it no stream from the visitor's browser.
#include <strings.h>

#include <algorithm>
#include <cstdio>

#include "http/http_impl.h"
#include "live/change_watch.h"
#include "live/notice_hub.h"

namespace tavo_server {

void HttpServer::Impl::AddLiveRoutes() {
  // The session recheck may ask the account process: a worker answers.
  routes.push_back({"GET", "/api/live", Lane::kWorker,
                    [this](const HttpRequest& q, HttpResponse& r) { LiveStream(q, r); }});
}

namespace {

bool SameSiteRequest(const SitePolicy& site, const HttpRequest& req) {
  if (!site.OriginAllowed(req.Header("Origin"), !req.Headers("Origin").empty(), req.Header("Host")))
    return false;
  const std::string from = req.Header("Sec-Fetch-Site");
  return from.empty() || strcasecmp(from.c_str(), "same-origin") == 0 ||
         strcasecmp(from.c_str(), "none") == 0;
}

}  // namespace

void HttpServer::Impl::LiveStream(const HttpRequest& req, HttpResponse& res) {
  if (!SameSiteRequest(site, req)) {
    SendError(res, 403, "cross-site request refused: the change stream is for this server's page");
    return;
  }
  SessionStore::Session s;
  if (!Authorize(req, res, &s)) return;
  res.SetHeader("Cache-Control", "no-store");
  res.content_type = "text/event-stream; charset=utf-8";
  if (req.method == "HEAD") return;
  NoticeHub* hub = live.get();
  res.stream = hub != nullptr ? hub->Open(s.token) : nullptr;
  if (!res.stream) {
    SendError(res, 429, "too many change streams are open for this session");
    return;
  }
  res.status = 200;
}

void HttpServer::Impl::StartLive() {
  // Streams must send something well within the library's inactivity
  // timeout, which backs up the connection deadlines.
  const int backstop =
      std::max({options.read_timeout, options.write_timeout, options.keepalive_timeout}) + 5;
  NoticeHub::Limits limits;
  limits.heartbeat = std::min(limits.heartbeat, std::chrono::milliseconds(backstop * 1000 / 3));
  live.reset(
      new NoticeHub([this](const std::string& token) { return sessions.Alive(token); }, limits));
  NoticeHub* hub = live.get();
  watch.reset(new ChangeWatch(
      options.root, [hub](bool groups, bool events) { hub->Publish(groups, events); },
      ChangeWatch::Timing()));
  const Status started = watch->Start();
  if (!started.ok()) {
    // The page still works; it just is not told about changes.
    fprintf(stderr, "tavo: live updates are off: %s\n", started.message().c_str());
    watch.reset();
  }
}

void HttpServer::Impl::StopLive() {
  watch.reset();
  live.reset();
}

}  // namespace tavo_server
