// The HTTP core's own part of serving: its construction, where a parsed
// request is turned into a response whichever thread runs it, the headers
// every answer carries, health, the API's description and the static files
// of the admin page.
#include <strings.h>

#include <functional>

#include "http/compress.h"
#include "http/http_impl.h"
#include "tavo/util.h"

namespace tavo_server {
namespace {

// The page loads its scripts, styles and images from this server only, runs
// no inline code and may not be framed.
constexpr const char kContentSecurityPolicy[] =
    "default-src 'self'; img-src 'self' data:; object-src 'none'; base-uri 'none'; "
    "form-action 'self'; frame-ancestors 'none'";

bool IsApiPath(const std::string& path) {
  return path == "/api" || path.compare(0, 5, "/api/") == 0;
}

// True when an If-None-Match value names `etag` (or is "*").
bool EtagMatches(const std::string& if_none_match, const std::string& etag) {
  if (if_none_match.empty()) return false;
  size_t pos = 0;
  while (pos < if_none_match.size()) {
    size_t end = if_none_match.find(',', pos);
    if (end == std::string::npos) end = if_none_match.size();
    std::string tag = tavo::Trim(if_none_match.substr(pos, end - pos));
    pos = end + 1;
    if (tag.empty()) continue;
    if (tag.compare(0, 2, "W/") == 0) tag = tag.substr(2);
    if (tag == "*" || tag == etag) return true;
  }
  return false;
}

}  // namespace

const char* Reason(int status) {
  switch (status) {
    case 400:
      return "bad request";
    case 401:
      return "not logged in";
    case 403:
      return "forbidden";
    case 404:
      return "not found";
    case 405:
      return "method not allowed";
    case 408:
      return "request timed out";
    case 411:
      return "length required";
    case 413:
      return "request body too large";
    case 414:
      return "request line too long";
    case 416:
      return "range not satisfiable";
    case 429:
      return "too many requests";
    case 431:
      return "request headers too large";
    case 503:
      return "server busy";
    default:
      return status >= 500 ? "internal server error" : "request refused";
  }
}

HttpServer::Impl::Impl(const ServeOptions& o)
    : options(o), files(o.web_dir), site(o.server_names, o.tls()) {
  // The core's own routes: health and the API's description. The others
  // register themselves (auth/auth_routes.h, api/api_routes.h).
  using Req = const HttpRequest&;
  using Res = HttpResponse&;
  routes.push_back(
      {"GET", "/healthz", Lane::kEvent, [this](Req q, Res r) { Health(q, r); }, nullptr, nullptr});
  routes.push_back({"GET", "/api/openapi.json", Lane::kEvent,
                    [this](Req q, Res r) { OpenApi(q, r); }, nullptr, nullptr});
  openapi_etag = "\"" + std::to_string(std::hash<std::string>()(options.openapi_json)) + "\"";
}

void HttpServer::Impl::Health(const HttpRequest&, HttpResponse& res) {
  Json::Value out(Json::objectValue);
  out["status"] = "ok";
  res.SetHeader("Cache-Control", "no-store");
  SendJson(res, out);
}

void HttpServer::Impl::OpenApi(const HttpRequest& req, HttpResponse& res) {
  if (options.openapi_json.empty()) {
    SendError(res, 404, "no API description was made at start");
    return;
  }
  res.SetHeader("Cache-Control", "no-cache");
  res.SetHeader("ETag", openapi_etag);
  if (EtagMatches(req.Header("If-None-Match"), openapi_etag)) {
    res.status = 304;
    return;
  }
  res.status = 200;
  res.content_type = "application/json";
  res.body = options.openapi_json;
}

const HttpServer::Impl::Route* HttpServer::Impl::Find(const HttpRequest& req) const {
  const std::string& method = req.method == "HEAD" ? std::string("GET") : req.method;
  for (const Route& r : routes)
    if (r.method == method && r.path == req.path) return &r;
  return nullptr;
}

bool HttpServer::Impl::Admit(const HttpRequest& req, HttpResponse& res) {
  const std::string host = req.Header("Host");
  if (!site.HostAllowed(host)) {
    // Another site's name: a page there may have made its name resolve to us.
    SendError(res, 421, "this server does not answer to the host name in Host; use its address");
    return false;
  }
  if (req.method == "POST" &&
      !site.OriginAllowed(req.Header("Origin"), !req.Headers("Origin").empty(), host)) {
    SendError(res, 403, "cross-site request refused: the Origin is not this server");
    return false;
  }
  return true;
}

void HttpServer::Impl::Handle(const Route* route, const HttpRequest& req, HttpResponse& res) {
  if (!Admit(req, res)) {
    // refused: `res` holds why
  } else if (route != nullptr) {
    route->handler(req, res);
  } else if (req.method == "GET" || req.method == "HEAD") {
    StaticFile(req, res);
  } else if (req.method == "POST") {
    SendError(res, 404, "no such endpoint: " + req.path);
  } else {
    res.SetHeader("Allow", "GET, HEAD, POST");
    SendError(res, 405, "method " + req.method + " is not allowed; use GET or POST");
  }
  Finish(req, res);
}

void HttpServer::Impl::Finish(const HttpRequest& req, HttpResponse& res) {
  if (!req.remote_addr.empty()) metrics.Answered(res.log, res.status);  // not the watchdog's probe
  res.SetHeader("X-Content-Type-Options", "nosniff");
  res.SetHeader("X-Frame-Options", "DENY");
  res.SetHeader("Content-Security-Policy", kContentSecurityPolicy);
  res.SetHeader("Referrer-Policy", "no-referrer");
  if (options.tls()) res.SetHeader("Strict-Transport-Security", "max-age=31536000");
  if (IsApiPath(req.path) && res.Header("Cache-Control").empty())
    res.SetHeader("Cache-Control", "no-store");
  if (res.body.size() < kGzipMinBytes || !Compressible(res.content_type) ||
      !res.Header("Content-Encoding").empty())
    return;
  res.SetHeader("Vary", "Accept-Encoding");
  if (!AcceptsGzip(req.Header("Accept-Encoding"))) return;
  std::string packed;
  if (!Gzip(res.body, &packed) || packed.size() >= res.body.size()) return;
  res.body.swap(packed);
  res.SetHeader("Content-Encoding", "gzip");
}

void HttpServer::Impl::StaticFile(const HttpRequest& req, HttpResponse& res) {
  if (IsApiPath(req.path)) {
    SendError(res, 404, "no such endpoint: " + req.path);
    return;
  }
  std::string file;
  switch (files.Resolve(req.path, &file)) {
    case StaticFiles::Result::kBadPath:
      SendError(res, 400, "bad path");
      return;
    case StaticFiles::Result::kNotFound:
      SendError(res, 404, "not found");
      return;
    case StaticFiles::Result::kFound:
      break;
  }
  std::shared_ptr<const StaticCache::Entry> e = cache.Load(file);
  if (!e) {
    SendError(res, 404, "not found");
    return;
  }
  // The page is checked on every load (no-cache) but costs one small 304
  // answer when it did not change.
  res.SetHeader("Cache-Control", "no-cache");
  res.SetHeader("ETag", e->etag);
  if (!e->gzipped.empty()) res.SetHeader("Vary", "Accept-Encoding");
  if (EtagMatches(req.Header("If-None-Match"), e->etag)) {
    res.status = 304;
    return;
  }
  res.status = 200;
  res.content_type = e->content_type;
  if (!e->gzipped.empty() && AcceptsGzip(req.Header("Accept-Encoding"))) {
    res.body = e->gzipped;
    res.SetHeader("Content-Encoding", "gzip");
  } else {
    res.body = e->body;
  }
}

}  // namespace tavo_server
