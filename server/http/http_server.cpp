// The event glue: libmicrohttpd's callbacks, the hand-over of blocking routes
// to the workers or to a route's starter, and per-connection deadlines.
#include <microhttpd.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "http/http_glue.h"
#include "http/http_impl.h"
#include "http/stream_body.h"
#include "tls/tls_credentials.h"

namespace tavo_server {
namespace http_glue {

using Impl = HttpServer::Impl;
using Clock = std::chrono::steady_clock;

constexpr size_t kMaxHeaders = 100;

// One TCP connection (the library's socket context).
struct Conn {
  ConnDeadlines::Slot slot;
  std::string addr;
  int requests = 0;
  bool idle = false;            // between two requests of a kept-alive connection
  uint64_t tls_generation = 0;  // HTTPS: TlsCredentials::ConnectionStarted
};

// kRunning: a worker has the request and the event thread may still be
// waiting for it; kParked: the event thread suspended the connection, and
// the worker resumes it when the answer is ready.
enum State { kReading, kRunning, kParked, kReady };

// How long an event thread with nothing else in flight waits, awake, for a
// worker's answer before it suspends the connection and goes back to its
// loop. Sleeping and being woken again costs two thread wake-ups, which on
// a virtual machine are tens of microseconds each; most calls that write
// nothing take less than this.
constexpr std::chrono::microseconds kAwakeWait(500);

// One request and its answer (the library's per-request context).
struct Exchange {
  Conn* conn = nullptr;
  HttpRequest req;
  HttpResponse res;
  const Impl::Route* route = nullptr;
  Clock::time_point start = Clock::now();
  std::atomic<int> state{kReading};
  bool too_big = false;
  bool close = false;
  bool sent = false;
  bool finish_on_send = false;  // answered elsewhere: Finish on the event thread
};

Conn* ConnOf(MHD_Connection* c) {
  const MHD_ConnectionInfo* info = MHD_get_connection_info(c, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
  return info ? static_cast<Conn*>(info->socket_context) : nullptr;
}

MHD_Result AddPair(void* cls, MHD_ValueKind, const char* key, const char* value) {
  static_cast<HeaderList*>(cls)->emplace_back(key ? key : "", value ? value : "");
  return MHD_YES;
}

void OnConnection(void* cls, MHD_Connection* connection, void** socket_context,
                  MHD_ConnectionNotificationCode toe) {
  Impl* s = static_cast<Impl*>(cls);
  if (toe == MHD_CONNECTION_NOTIFY_STARTED) {
    Conn* c = new Conn;
    const MHD_ConnectionInfo* info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    c->slot.fd = info ? info->connect_fd : -1;
    c->slot.peer_len = sizeof(c->slot.peer);
    if (getpeername(c->slot.fd, reinterpret_cast<sockaddr*>(&c->slot.peer), &c->slot.peer_len) != 0)
      c->slot.peer_len = 0;
    char host[NI_MAXHOST];
    if (c->slot.peer_len > 0 &&
        getnameinfo(reinterpret_cast<sockaddr*>(&c->slot.peer), c->slot.peer_len, host,
                    sizeof(host), nullptr, 0, NI_NUMERICHOST) == 0)
      c->addr = host;
    // Every answer is one write; never hold it back for the client's ACK.
    int one = 1;
    setsockopt(c->slot.fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    ConnDeadlines::Set(&c->slot, Seconds(s->options.read_timeout));
    s->deadlines->Add(&c->slot);
    s->connections.fetch_add(1);
    if (c->slot.fd >= 0 && c->slot.fd == s->probe_fd.load()) s->probe_seen.store(true);
    if (s->options.tls()) c->tls_generation = TlsCredentials::ConnectionStarted();
    *socket_context = c;
  } else if (toe == MHD_CONNECTION_NOTIFY_CLOSED) {
    Conn* c = static_cast<Conn*>(*socket_context);
    if (c == nullptr) return;
    s->deadlines->Remove(&c->slot);
    if (s->options.tls()) TlsCredentials::ConnectionEnded(c->tls_generation);
    delete c;
    *socket_context = nullptr;
    s->connections.fetch_sub(1);
  }
}

// Called when a request line has arrived: the next request of a kept-alive
// connection gets the whole read time from here.
void* OnRequestLine(void* cls, const char*, MHD_Connection* connection) {
  Impl* s = static_cast<Impl*>(cls);
  Conn* c = ConnOf(connection);
  if (c != nullptr && c->idle) {
    c->idle = false;
    ConnDeadlines::Set(&c->slot, Seconds(s->options.read_timeout));
  }
  return nullptr;
}

// Refusals decided on the request head alone, before any of the body is
// read. True when `x->res` holds one.
bool RefuseEarly(Impl* s, Exchange* x) {
  HttpResponse& res = x->res;
  const std::string length = x->req.Header("Content-Length");
  if (s->stopping.load()) {
    res.SetHeader("Retry-After", "1");
    SendError(res, 503, "the server is stopping");
  } else if (s->connections.load() > s->options.max_connections) {
    res.SetHeader("Retry-After", "1");
    SendError(res, 503, "server busy: too many open connections");
  } else if (x->req.headers.size() > kMaxHeaders) {
    SendError(res, 431, "too many header lines (at most " + std::to_string(kMaxHeaders) + ")");
  } else if (const char* repeated = RepeatedHeader(x->req.headers)) {
    SendError(res, 400, std::string("more than one ") + repeated + " header");
  } else if (!x->req.Header("Transfer-Encoding").empty()) {
    // A chunked body has no declared length to check before reading it.
    SendError(res, 411, "send the body with a Content-Length; chunked bodies are not accepted");
  } else if (!length.empty() && strtoull(length.c_str(), nullptr, 10) > s->options.max_body) {
    SendError(
        res, 413,
        std::string(Reason(413)) + " (at most " + std::to_string(s->options.max_body) + " bytes)");
  } else {
    return false;
  }
  x->close = true;
  s->Finish(x->req, res);
  return true;
}

// A streamed answer's body as the library reads it (http/stream_body.h).
struct StreamReader {
  std::shared_ptr<StreamBody> body;
  MHD_Connection* connection;
};

ssize_t ReadStream(void* cls, uint64_t, char* buf, size_t max) {
  StreamReader* r = static_cast<StreamReader*>(cls);
  const long n = r->body->Read(buf, max);
  if (n > 0) return n;
  if (n < 0) return MHD_CONTENT_READER_END_OF_STREAM;
  // Nothing to send: the connection waits suspended, costing no event-thread
  // time, until the body resumes it.
  MHD_Connection* connection = r->connection;
  MHD_suspend_connection(connection);
  if (!r->body->Park([connection] { MHD_resume_connection(connection); }))
    MHD_resume_connection(connection);
  return 0;
}

void FreeStream(void* cls) { delete static_cast<StreamReader*>(cls); }

MHD_Response* StreamResponse(Impl* s, MHD_Connection* connection, Exchange* x) {
  MHD_Response* m = MHD_create_response_from_callback(
      MHD_SIZE_UNKNOWN, 1024, ReadStream, new StreamReader{x->res.stream, connection}, FreeStream);
  if (m == nullptr) return nullptr;
  s->streams.fetch_add(1);
  x->close = true;
  return m;
}

MHD_Result Send(Impl* s, MHD_Connection* connection, Exchange* x) {
  if (x->finish_on_send) {
    x->finish_on_send = false;
    s->Finish(x->req, x->res);
  }
  const HttpResponse& r = x->res;
  Conn* c = x->conn;
  if (r.stream) x->close = true;
  const bool close = x->close || s->stopping.load() || s->options.keepalive_timeout == 0 ||
                     (c != nullptr && c->requests >= s->options.keepalive_max);
  // The body stays in the exchange until the request is completed.
  MHD_Response* m =
      r.stream ? StreamResponse(s, connection, x)
               : MHD_create_response_from_buffer(r.body.size(), const_cast<char*>(r.body.data()),
                                                 MHD_RESPMEM_PERSISTENT);
  if (m == nullptr) return MHD_NO;
  if (!r.content_type.empty()) MHD_add_response_header(m, "Content-Type", r.content_type.c_str());
  for (const auto& h : r.headers) MHD_add_response_header(m, h.first.c_str(), h.second.c_str());
  // Tell the client how long an idle connection stays open, so it does not
  // send on one that is just being closed.
  if (close)
    MHD_add_response_header(m, "Connection", "close");
  else
    MHD_add_response_header(m, "Keep-Alive", s->keep_alive_header.c_str());
  const MHD_Result ret = MHD_queue_response(connection, static_cast<unsigned>(r.status), m);
  MHD_destroy_response(m);
  x->sent = true;
  // A stream has no end to wait for: its keepalive comments and the
  // library's inactivity timeout find a client that stopped reading.
  if (c != nullptr)
    ConnDeadlines::Set(&c->slot,
                       r.stream ? std::chrono::milliseconds(0) : Seconds(s->options.write_timeout));
  return ret;
}

MHD_Result OnRequest(void* cls, MHD_Connection* connection, const char* url, const char* method,
                     const char*, const char* upload_data, size_t* upload_data_size,
                     void** con_cls) {
  Impl* s = static_cast<Impl*>(cls);
  Exchange* x = static_cast<Exchange*>(*con_cls);
  if (x == nullptr) {  // the head has arrived
    x = new Exchange;
    *con_cls = x;
    s->in_flight.fetch_add(1);
    x->conn = ConnOf(connection);
    if (x->conn != nullptr) {
      ++x->conn->requests;
      x->req.remote_addr = x->conn->addr;
    }
    x->req.method = method;
    x->req.path = url;
    MHD_get_connection_values(connection, MHD_HEADER_KIND, AddPair, &x->req.headers);
    MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, AddPair, &x->req.query);
    if (RefuseEarly(s, x)) return Send(s, connection, x);
    return MHD_YES;  // the library answers "100 Continue" if the client asked
  }
  if (*upload_data_size > 0) {
    if (x->req.body.size() + *upload_data_size > s->options.max_body)
      x->too_big = true;
    else
      x->req.body.append(upload_data, *upload_data_size);
    *upload_data_size = 0;
    return MHD_YES;
  }
  if (x->state.load() == kReady) return Send(s, connection, x);
  if (x->state.load() != kReading) return MHD_YES;
  // The whole request has arrived; the answer has no deadline of its own
  // until it is ready to be sent.
  if (x->conn != nullptr) ConnDeadlines::Set(&x->conn->slot, std::chrono::milliseconds(0));
  if (x->too_big) {
    SendError(
        x->res, 413,
        std::string(Reason(413)) + " (at most " + std::to_string(s->options.max_body) + " bytes)");
    x->close = true;
    s->Finish(x->req, x->res);
    return Send(s, connection, x);
  }
  x->route = s->Find(x->req);
  if (x->route == nullptr || x->route->lane == HttpServer::Lane::kEvent) {
    s->Handle(x->route, x->req, x->res);
    return Send(s, connection, x);
  }
  // The request goes to a worker, or is started elsewhere. When it is the
  // only one in flight, the event thread has nothing else to do and waits
  // awake for the answer for a moment; otherwise, or when the answer takes
  // longer, the connection waits suspended until the answer resumes it.
  const bool alone = s->in_flight.load() - s->streams.load() == 1;
  x->state.store(kRunning);
  const auto ready = [x, connection] {
    int running = kRunning;
    if (x->state.compare_exchange_strong(running, kReady)) return;  // the event thread sends it
    // Parked: `x` is the event thread's again once the connection resumes.
    x->state.store(kReady);
    MHD_resume_connection(connection);
  };
  bool queued = false;
  if (x->route->start && !s->Admit(x->req, x->res)) {
    // Refused before its route: answered here.
    s->Finish(x->req, x->res);
    x->state.store(kReady);
    return Send(s, connection, x);
  }
  if (x->route->start && x->route->start(x->req, x->res, [x, ready] {
        x->finish_on_send = true;
        ready();
      })) {
    queued = true;
  } else {
    if (x->route->start) x->res = HttpResponse();
    queued = s->PoolFor(*x->route, x->req)->TrySubmit([s, x, ready] {
      s->Handle(x->route, x->req, x->res);
      ready();
    });
  }
  if (!queued) {
    x->res = HttpResponse();
    x->res.SetHeader("Retry-After", "1");
    SendError(x->res, 503, "server busy: too many calls waiting; try again");
    s->Finish(x->req, x->res);
    x->state.store(kReady);
    return Send(s, connection, x);
  }
  if (alone) {
    const auto until = Clock::now() + kAwakeWait;
    // Yielding lets the worker run here when the scheduler woke it on this
    // core.
    while (x->state.load() != kReady && Clock::now() < until) sched_yield();
    if (x->state.load() == kReady) return Send(s, connection, x);
  }
  MHD_suspend_connection(connection);
  int running = kRunning;
  // The worker finished between the wait and the suspension: nobody else
  // will resume the connection.
  if (!x->state.compare_exchange_strong(running, kParked)) MHD_resume_connection(connection);
  return MHD_YES;
}

void OnCompleted(void* cls, MHD_Connection*, void** con_cls, MHD_RequestTerminationCode) {
  Impl* s = static_cast<Impl*>(cls);
  Exchange* x = static_cast<Exchange*>(*con_cls);
  if (x == nullptr) return;
  *con_cls = nullptr;
  const double ms = std::chrono::duration<double, std::milli>(Clock::now() - x->start).count();
  // The watchdog's own probes (no client address) are neither logged nor
  // counted; nor is a stream's length counted as a request's time.
  if (!x->req.remote_addr.empty()) {
    s->log->Write(x->req.remote_addr, x->req.method, x->req.path, x->sent ? x->res.status : 0,
                  x->res.log, ms);
    if (!x->res.stream) s->metrics.Completed(ms);
  }
  if (x->sent && x->res.stream) s->streams.fetch_sub(1);
  if (x->conn != nullptr) {
    x->conn->idle = true;
    ConnDeadlines::Set(&x->conn->slot, Seconds(s->options.keepalive_timeout));
  }
  delete x;
  if (s->in_flight.fetch_sub(1) == 1 && s->stopping.load()) {
    std::lock_guard<std::mutex> lock(s->stop_mu);
    s->stop_cv.notify_all();
  }
}

void OnLibraryError(void*, const char* format, va_list ap) {
  fputs("tavo: http: ", stderr);
  vfprintf(stderr, format, ap);
}

}  // namespace http_glue
}  // namespace tavo_server
