// The HTTP core's life: its routes and companions, starting the library's
// daemon with every limit, and the graceful stop.
#include <microhttpd.h>
#include <unistd.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "http/http_glue.h"
#include "http/http_impl.h"
#include "tls/tls_credentials.h"

namespace tavo_server {
namespace {

using http_glue::Seconds;

// The memory of one connection: its read buffer and parsed head. A request
// head that does not fit is refused by the library (414 or 431).
constexpr size_t kConnectionMemory = 16 * 1024;
// Connections beyond --max-connections are still read, up to this many more,
// so that they can be refused with a clear 503; past that they are closed.
constexpr int kRefusalHeadroom = 64;
// HTTPS: TLS 1.2 and 1.3 only, with authenticated (AEAD) ciphers and forward
// secrecy, the server's order of preference first.
constexpr char kTlsPriorities[] =
    "SECURE128:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2:-CIPHER-ALL:+AES-256-GCM:+AES-128-GCM:"
    "+CHACHA20-POLY1305:-MAC-ALL:+AEAD:-KX-ALL:+ECDHE-ECDSA:+ECDHE-RSA:+DHE-RSA:%SERVER_PRECEDENCE";

}  // namespace

HttpServer::Impl::~Impl() {
  if (listen_fd >= 0) close(listen_fd);
}

HttpServer::HttpServer(const ServeOptions& options) : impl_(new Impl(options)) {}

Metrics& HttpServer::metrics() { return impl_->metrics; }

void HttpServer::AddCompanion(Companion companion) {
  impl_->companions.push_back(std::move(companion));
}

void HttpServer::Impl::StopCompanions() {
  for (auto c = companions.rbegin(); c != companions.rend(); ++c)
    if (c->stop) c->stop();
}

HttpServer::~HttpServer() = default;

void HttpServer::AddRoute(const std::string& method, const std::string& path, Lane lane,
                          Handler handler, LockFree lock_free, Starter start) {
  impl_->routes.push_back(
      {method, path, lane, std::move(handler), std::move(lock_free), std::move(start)});
}

Executor* HttpServer::Impl::PoolFor(const Route& route, const HttpRequest& req) const {
  if (route.lane == Lane::kCall && !(route.lock_free && route.lock_free(req))) return workers.get();
  return quick.get();
}

Status HttpServer::Run() {
  Impl& s = *impl_;
  const ServeOptions& o = s.options;
  s.log.reset(new AccessLog(stderr));
  s.keep_alive_header = "timeout=" + std::to_string(o.keepalive_timeout);
  s.deadlines.reset(new ConnDeadlines());
  s.workers.reset(new WorkerPool(o.workers, static_cast<size_t>(o.queue)));
  s.quick.reset(new WorkerPool(kQuickWorkers, static_cast<size_t>(o.queue)));
  unsigned threads = o.event_threads > 0 ? static_cast<unsigned>(o.event_threads)
                                         : std::max(1u, std::thread::hardware_concurrency());
  // The library's own inactivity timeout only backs up the deadlines above.
  const unsigned backstop =
      static_cast<unsigned>(std::max({o.read_timeout, o.write_timeout, o.keepalive_timeout}) + 5);
  // HTTPS: each handshake takes the certificate installed at Bind, or by the
  // latest ReloadTls.
  std::vector<MHD_OptionItem> tls_options;
  if (o.tls()) {
    tls_options.push_back(
        {MHD_OPTION_HTTPS_CERT_CALLBACK, 0, reinterpret_cast<void*>(&TlsCredentials::Retrieve)});
    tls_options.push_back({MHD_OPTION_HTTPS_PRIORITIES, 0, const_cast<char*>(kTlsPriorities)});
  }
  tls_options.push_back({MHD_OPTION_END, 0, nullptr});
  for (const Companion& c : s.companions)
    if (c.start) c.start();
  MHD_Daemon* daemon =
      MHD_start_daemon(MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ITC |
                           MHD_USE_ERROR_LOG | (o.tls() ? MHD_USE_TLS : 0),
                       0, nullptr, nullptr, http_glue::OnRequest, &s, MHD_OPTION_EXTERNAL_LOGGER,
                       http_glue::OnLibraryError,
                       nullptr,  // first, to catch every message
                       MHD_OPTION_ARRAY, tls_options.data(), MHD_OPTION_LISTEN_SOCKET, s.listen_fd,
                       MHD_OPTION_THREAD_POOL_SIZE, threads, MHD_OPTION_CONNECTION_LIMIT,
                       static_cast<unsigned>(o.max_connections + kRefusalHeadroom),
                       MHD_OPTION_PER_IP_CONNECTION_LIMIT, static_cast<unsigned>(o.per_address),
                       MHD_OPTION_CONNECTION_TIMEOUT, backstop, MHD_OPTION_CONNECTION_MEMORY_LIMIT,
                       kConnectionMemory, MHD_OPTION_NOTIFY_COMPLETED, http_glue::OnCompleted, &s,
                       MHD_OPTION_NOTIFY_CONNECTION, http_glue::OnConnection, &s,
                       MHD_OPTION_URI_LOG_CALLBACK, http_glue::OnRequestLine, &s, MHD_OPTION_END);
  if (daemon == nullptr) {
    s.StopCompanions();
    return Status::Error("the HTTP server could not start");
  }
  {
    std::lock_guard<std::mutex> probe(s.probe_mu);
    s.daemon = daemon;
  }

  std::unique_lock<std::mutex> lock(s.stop_mu);
  s.stop_cv.wait(lock, [&s] { return s.stopping.load(); });
  // No new connections; kept-alive ones get 503 for new requests.
  MHD_quiesce_daemon(s.daemon);
  close(s.listen_fd);
  s.listen_fd = -1;
  // Open streams end, so that they are not waited for.
  for (const Companion& c : s.companions)
    if (c.end_streams) c.end_streams();
  const bool drained =
      s.stop_cv.wait_for(lock, Seconds(o.stop_timeout), [&s] { return s.in_flight.load() == 0; });
  lock.unlock();
  if (!drained)
    return Status::Error(std::to_string(s.in_flight.load()) + " requests still running after " +
                         std::to_string(o.stop_timeout) + " s");
  {
    std::lock_guard<std::mutex> probe(s.probe_mu);
    MHD_stop_daemon(s.daemon);
    s.daemon = nullptr;
  }
  s.StopCompanions();
  s.workers.reset();
  s.quick.reset();
  s.deadlines.reset();
  s.log.reset();
  return Status::OK();
}

void HttpServer::Stop() {
  std::lock_guard<std::mutex> lock(impl_->stop_mu);
  impl_->stopping.store(true);
  impl_->stop_cv.notify_all();
}

}  // namespace tavo_server
