#include "http_server.h"

#include <sys/socket.h>

#include <fstream>
#include <sstream>

#include "access_log.h"
#include "http_impl.h"
#include "random.h"
#include "json_util.h"

namespace tavo_server {
namespace {

constexpr size_t kMaxHeaders = 100;
constexpr const char kJsonType[] = "application/json; charset=utf-8";
// The page loads its scripts, styles and images from this server only, runs
// no inline code and may not be framed.
constexpr const char kContentSecurityPolicy[] =
    "default-src 'self'; img-src 'self' data:; object-src 'none'; base-uri 'none'; "
    "form-action 'self'; frame-ancestors 'none'";

const char* Reason(int status) {
  switch (status) {
    case 400: return "bad request";
    case 401: return "not logged in";
    case 403: return "forbidden";
    case 404: return "not found";
    case 405: return "method not allowed";
    case 408: return "request timed out";
    case 411: return "length required";
    case 413: return "request body too large";
    case 414: return "request line too long";
    case 416: return "range not satisfiable";
    case 429: return "too many requests";
    case 431: return "request headers too large";
    default: return status >= 500 ? "internal server error" : "request refused";
  }
}

ThrottleLimits LoginLimits(const ServeOptions& o) {
  ThrottleLimits l;
  l.per_pair = l.per_device = l.free_per_account = o.login_max_failures;
  l.per_address = 4 * o.login_max_failures;
  l.window = std::chrono::seconds(o.login_window);
  return l;
}

}  // namespace

void SendError(httplib::Response& res, int status, const std::string& message) {
  Json::Value body(Json::objectValue);
  body["error"] = message;
  res.status = status;
  res.set_content(ToCompactJson(body), kJsonType);
}

void SendJson(httplib::Response& res, const Json::Value& body) {
  res.status = 200;
  res.set_content(ToCompactJson(body), kJsonType);
}

HttpServer::Impl::Impl(const ServeOptions& o, const ModuleSet& m)
    : options(o),
      modules(m),
      sessions(std::chrono::seconds(o.session_idle), std::chrono::seconds(o.session_lifetime),
               static_cast<size_t>(o.max_sessions)),
      logins(LoginLimits(o), RandomHex(32), std::chrono::hours(24 * 30)),
      files(o.web_dir) {
  const int workers = o.workers;
  http.new_task_queue = [workers] { return new httplib::ThreadPool(static_cast<size_t>(workers)); };
  // The library's default also sets SO_REUSEPORT, which would let a second
  // server share (and split) this port; only SO_REUSEADDR is wanted.
  http.set_socket_options([](int sock) {
    int yes = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
  });
  http.set_payload_max_length(o.max_body);
  // The request line and the header lines, each at most 8192 bytes, and the body.
  http.set_request_budget((kMaxHeaders + 2) * 8192 + o.max_body);
  http.set_read_timeout(o.read_timeout, 0);
  http.set_write_timeout(o.write_timeout, 0);
  http.set_keep_alive_timeout(o.keepalive_timeout);
  http.set_keep_alive_max_count(static_cast<size_t>(o.keepalive_max));
  http.set_default_headers({{"X-Content-Type-Options", "nosniff"},
                            {"X-Frame-Options", "DENY"},
                            {"Content-Security-Policy", kContentSecurityPolicy},
                            {"Referrer-Policy", "no-referrer"}});

  const size_t max_body = o.max_body;
  http.set_pre_routing_handler([max_body](const httplib::Request& req, httplib::Response& res) {
    access_log::Begin();
    if (req.headers.size() > kMaxHeaders) {
      SendError(res, 431, "too many header lines (at most " + std::to_string(kMaxHeaders) + ")");
      return httplib::Server::HandlerResponse::Handled;
    }
    // Bodies must declare their length: the HTTP library does not bound a
    // chunked body by the size limit.
    if (req.has_header("Transfer-Encoding")) {
      SendError(res, 411, "send the body with a Content-Length; chunked bodies are not accepted");
      if (req.get_header_value("Connection") != "close") res.set_header("Connection", "close");
      return httplib::Server::HandlerResponse::Handled;
    }
    // A declared length over the limit is refused before any of the body is
    // read, and the connection is closed instead of draining it.
    if (req.has_header("Content-Length") &&
        req.get_header_value<uint64_t>("Content-Length") > max_body) {
      SendError(res, 413, std::string(Reason(413)) + " (at most " + std::to_string(max_body) + " bytes)");
      if (req.get_header_value("Connection") != "close") res.set_header("Connection", "close");
      return httplib::Server::HandlerResponse::Handled;
    }
    if (req.path.compare(0, 4, "/api") == 0) res.set_header("Cache-Control", "no-store");
    return httplib::Server::HandlerResponse::Unhandled;
  });
  http.set_logger([](const httplib::Request& req, const httplib::Response& res) {
    access_log::End(req.remote_addr, req.method, req.path, res.status);
  });
  http.set_error_handler(httplib::Server::HandlerWithResponse(
      [this](const httplib::Request&, httplib::Response& res) {
    if (!res.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
    std::string message = Reason(res.status);
    if (res.status == 413) message += " (at most " + std::to_string(options.max_body) + " bytes)";
    SendError(res, res.status, message);
    return httplib::Server::HandlerResponse::Handled;
  }));
  http.set_exception_handler([](const httplib::Request&, httplib::Response& res, std::exception_ptr) {
    SendError(res, 500, "internal server error");
  });

  using Req = const httplib::Request&;
  using Res = httplib::Response&;
  http.Post("/api/auth/login", [this](Req q, Res r) { Login(q, r); });
  http.Post("/api/auth/logout", [this](Req q, Res r) { Logout(q, r); });
  http.Get("/api/auth/session", [this](Req q, Res r) { SessionInfo(q, r); });
  http.Get("/api/info", [this](Req q, Res r) { ApiInfo(q, r); });
  http.Post("/api", [this](Req q, Res r) { ApiPost(q, r); });
  http.Get("/api", [this](Req q, Res r) { ApiGet(q, r); });
  http.Get("/.*", [this](Req q, Res r) { StaticFile(q, r); });
  const auto not_allowed = [](Req q, Res r) {
    r.set_header("Allow", "GET, HEAD, POST");
    SendError(r, 405, "method " + q.method + " is not allowed; use GET or POST");
  };
  http.Put("/.*", not_allowed);
  http.Patch("/.*", not_allowed);
  http.Delete("/.*", not_allowed);
  http.Options("/.*", not_allowed);
}

void HttpServer::Impl::StaticFile(const httplib::Request& req, httplib::Response& res) {
  if (req.path == "/api" || req.path.compare(0, 5, "/api/") == 0) {
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
  std::ifstream in(file, std::ios::binary);
  std::ostringstream content;
  if (in.is_open()) content << in.rdbuf();
  if (!in.is_open() || in.bad()) {
    SendError(res, 404, "not found");
    return;
  }
  res.set_header("Cache-Control", "no-cache");
  res.set_content(content.str(), StaticFiles::ContentType(file));
}

HttpServer::HttpServer(const ServeOptions& options, const ModuleSet& modules)
    : impl_(new Impl(options, modules)) {}

HttpServer::~HttpServer() = default;

Status HttpServer::Bind(int* port) {
  const ServeOptions& o = impl_->options;
  if (o.port == 0) {
    int p = impl_->http.bind_to_any_port(o.host);
    if (p <= 0) return Status::Error("cannot listen on " + o.host + ": no free port");
    *port = p;
    return Status::OK();
  }
  if (!impl_->http.bind_to_port(o.host, o.port))
    return Status::Error("cannot listen on " + o.host + ":" + std::to_string(o.port));
  *port = o.port;
  return Status::OK();
}

bool HttpServer::Run() { return impl_->http.listen_after_bind(); }

void HttpServer::Stop() { impl_->http.stop(); }

}  // namespace tavo_server
