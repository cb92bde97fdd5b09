#include "live/live_routes.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>

namespace tavo_server {
namespace {

bool SameSiteRequest(const SitePolicy& site, const HttpRequest& req) {
  if (!site.OriginAllowed(req.Header("Origin"), !req.Headers("Origin").empty(), req.Header("Host")))
    return false;
  const std::string from = req.Header("Sec-Fetch-Site");
  return from.empty() || strcasecmp(from.c_str(), "same-origin") == 0 ||
         strcasecmp(from.c_str(), "none") == 0;
}

}  // namespace

LiveRoutes::LiveRoutes(const ServeOptions& options, AuthRoutes& auth)
    : options_(options), auth_(auth), site_(options.server_names, options.tls()) {}

LiveRoutes::~LiveRoutes() { Stop(); }

void LiveRoutes::Register(HttpServer& server) {
  // The session recheck may ask the account process: a worker answers.
  server.AddRoute("GET", "/api/live", HttpServer::Lane::kWorker,
                  [this](const HttpRequest& q, HttpResponse& r) { Stream(q, r); });
  server.AddCompanion({[this] { Start(); }, [this] { EndStreams(); }, [this] { Stop(); }});
  auth_.OnLogout([this](const std::string& token) {
    std::lock_guard<std::mutex> lock(mu_);
    if (hub_) hub_->EndSession(token);
  });
}

void LiveRoutes::Stream(const HttpRequest& req, HttpResponse& res) {
  if (!SameSiteRequest(site_, req)) {
    SendError(res, 403, "cross-site request refused: the change stream is for this server's page");
    return;
  }
  SessionStore::Session s;
  if (!auth_.Authorize(req, res, &s)) return;
  res.SetHeader("Cache-Control", "no-store");
  res.content_type = "text/event-stream; charset=utf-8";
  if (req.method == "HEAD") return;
  {
    std::lock_guard<std::mutex> lock(mu_);
    res.stream = hub_ ? hub_->Open(s.token) : nullptr;
  }
  if (!res.stream) {
    SendError(res, 429, "too many change streams are open for this session");
    return;
  }
  res.status = 200;
}

void LiveRoutes::Start() {
  // Streams must send something well within the library's inactivity
  // timeout, which backs up the connection deadlines.
  const int backstop =
      std::max({options_.read_timeout, options_.write_timeout, options_.keepalive_timeout}) + 5;
  NoticeHub::Limits limits;
  limits.heartbeat = std::min(limits.heartbeat, std::chrono::milliseconds(backstop * 1000 / 3));
  auto hub = std::make_unique<NoticeHub>(
      [this](const std::string& token) { return auth_.SessionAlive(token); }, limits);
  NoticeHub* publish_to = hub.get();
  auto watch = std::make_unique<ChangeWatch>(
      options_.root,
      [publish_to](bool groups, bool events) { publish_to->Publish(groups, events); },
      ChangeWatch::Timing());
  const Status started = watch->Start();
  if (!started.ok()) {
    // The page still works; it just is not told about changes.
    fprintf(stderr, "tavo: live updates are off: %s\n", started.message().c_str());
    watch.reset();
  }
  std::lock_guard<std::mutex> lock(mu_);
  hub_ = std::move(hub);
  watch_ = std::move(watch);
}

void LiveRoutes::EndStreams() {
  std::lock_guard<std::mutex> lock(mu_);
  if (hub_) hub_->EndAll();
}

void LiveRoutes::Stop() {
  std::unique_ptr<ChangeWatch> watch;
  std::unique_ptr<NoticeHub> hub;
  {
    std::lock_guard<std::mutex> lock(mu_);
    watch = std::move(watch_);
    hub = std::move(hub_);
  }
  watch.reset();  // no more publishing
  hub.reset();
}

}  // namespace tavo_server
