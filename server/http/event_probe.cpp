// The event-loop probe behind the watchdog: the server answers a connection
// handed to it, or it is not serving.
#include <microhttpd.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "http/http_impl.h"

namespace tavo_server {
namespace {

using Clock = std::chrono::steady_clock;

// Reads until the peer closes, `deadline` passes, or the status line is in.
bool ReadStatusLine(int fd, Clock::time_point deadline, std::string* got) {
  char buf[512];
  while (got->find("\r\n") == std::string::npos) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return false;
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left.count())) <= 0) return false;
    ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) return false;
    got->append(buf, static_cast<size_t>(n));
  }
  return true;
}

}  // namespace

bool HttpServer::ProbeEventLoop(int timeout_ms) {
  Impl& s = *impl_;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return false;
  const int ours = pair[0];
  {
    std::lock_guard<std::mutex> lock(s.probe_mu);
    if (s.daemon == nullptr || s.stopping.load()) {
      close(pair[0]);
      close(pair[1]);
      return false;
    }
    s.probe_seen.store(false);
    s.probe_fd.store(pair[1]);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    // MHD owns (and closes) pair[1] from here, whatever it answers.
    if (MHD_add_connection(s.daemon, pair[1], reinterpret_cast<sockaddr*>(&addr),
                           sizeof(sa_family_t)) != MHD_YES) {
      s.probe_fd.store(-1);
      close(ours);
      return false;
    }
  }
  bool alive = false;
  if (s.options.tls()) {
    // The TLS handshake is the client's to start: an event thread taking up
    // the connection is the sign.
    while (!(alive = s.probe_seen.load()) && Clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
  } else {
    static const char kRequest[] =
        "GET /healthz HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";
    std::string got;
    alive =
        write(ours, kRequest, sizeof kRequest - 1) == static_cast<ssize_t>(sizeof kRequest - 1) &&
        ReadStatusLine(ours, deadline, &got) && got.compare(0, 12, "HTTP/1.1 200") == 0;
  }
  s.probe_fd.store(-1);
  close(ours);
  return alive;
}

}  // namespace tavo_server
