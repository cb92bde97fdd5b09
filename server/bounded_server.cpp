#include "bounded_server.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

namespace tavo_server {
namespace {

// Waits until `sock` is readable (POLLIN) or writable (POLLOUT); 1 when it is,
// 0 on timeout, -1 on error.
int WaitFor(socket_t sock, short events, int timeout_ms) {
  pollfd p{sock, events, 0};
  for (;;) {
    int r = poll(&p, 1, timeout_ms);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return r;
    return (p.revents & (events | POLLHUP)) != 0 ? 1 : -1;
  }
}

int Millis(time_t sec, time_t usec) { return static_cast<int>(sec * 1000 + usec / 1000); }

// Bytes received but not yet read; kept across the requests of a connection
// so that a request sent right behind another is not lost.
struct ReadBuffer {
  char data[4096];
  size_t begin = 0, end = 0;
};

// One request's view of a connection: receives at most `budget` bytes, and
// all of them within `read_ms` of the request's start, so that a client
// trickling a byte at a time cannot hold a worker for longer than that.
class BoundedStream : public httplib::Stream {
 public:
  BoundedStream(socket_t sock, ReadBuffer* buf, size_t budget, int read_ms, int write_ms)
      : sock_(sock),
        buf_(*buf),
        budget_(budget),
        write_ms_(write_ms),
        deadline_(std::chrono::steady_clock::now() + std::chrono::milliseconds(read_ms)) {}

  // True once the request ran out of bytes or time; the connection then ends.
  bool exhausted() const { return exhausted_; }

  bool is_readable() const override {
    return buf_.begin < buf_.end || WaitFor(sock_, POLLIN, LeftMs()) > 0;
  }
  bool is_writable() const override { return WaitFor(sock_, POLLOUT, write_ms_) > 0; }

  ssize_t read(char* ptr, size_t size) override {
    if (buf_.begin == buf_.end) {
      if (used_ >= budget_) {
        exhausted_ = true;
        return -1;
      }
      const int left = LeftMs();
      const int ready = left > 0 ? WaitFor(sock_, POLLIN, left) : 0;
      if (ready <= 0) {
        exhausted_ = exhausted_ || ready == 0;  // out of time: close after the answer
        return -1;
      }
      ssize_t n;
      do {
        n = recv(sock_, buf_.data, std::min(sizeof(buf_.data), budget_ - used_), 0);
      } while (n < 0 && errno == EINTR);
      if (n <= 0) return n;
      used_ += static_cast<size_t>(n);
      buf_.begin = 0;
      buf_.end = static_cast<size_t>(n);
    }
    size_t n = std::min(size, buf_.end - buf_.begin);
    memcpy(ptr, buf_.data + buf_.begin, n);
    buf_.begin += n;
    return static_cast<ssize_t>(n);
  }

  ssize_t write(const char* ptr, size_t size) override {
    if (!is_writable()) return -1;
    ssize_t n;
    do {
      n = send(sock_, ptr, size, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n;
  }

  void get_remote_ip_and_port(std::string& ip, int& port) const override {
    Address(getpeername, ip, port);
  }
  void get_local_ip_and_port(std::string& ip, int& port) const override {
    Address(getsockname, ip, port);
  }
  socket_t socket() const override { return sock_; }

 private:
  // Time left to receive this request (0 once it has run out).
  int LeftMs() const {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline_ - std::chrono::steady_clock::now());
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(0, left.count()));
  }

  void Address(int (*get)(int, sockaddr*, socklen_t*), std::string& ip, int& port) const {
    sockaddr_storage addr{};
    socklen_t len = sizeof(addr);
    char host[NI_MAXHOST], serv[NI_MAXSERV];
    if (get(sock_, reinterpret_cast<sockaddr*>(&addr), &len) != 0 ||
        getnameinfo(reinterpret_cast<sockaddr*>(&addr), len, host, sizeof(host), serv,
                    sizeof(serv), NI_NUMERICHOST | NI_NUMERICSERV) != 0)
      return;
    ip = host;
    port = atoi(serv);
  }

  const socket_t sock_;
  ReadBuffer& buf_;
  const size_t budget_;
  const int write_ms_;
  const std::chrono::steady_clock::time_point deadline_;
  size_t used_ = 0;
  bool exhausted_ = false;
};

}  // namespace

bool BoundedServer::WaitForRequest(socket_t sock, bool buffered) {
  if (buffered) return svr_sock_ != INVALID_SOCKET;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(keep_alive_timeout_sec_);
  for (;;) {
    if (svr_sock_ == INVALID_SOCKET) return false;
    int r = WaitFor(sock, POLLIN, 100);
    if (r != 0) return r > 0;
    if (std::chrono::steady_clock::now() >= deadline) return false;
  }
}

bool BoundedServer::process_and_close_socket(socket_t sock) {
  bool ok = false;
  ReadBuffer buf;
  for (size_t left = keep_alive_max_count_; left > 0 && WaitForRequest(sock, buf.begin < buf.end);
       --left) {
    BoundedStream strm(sock, &buf, request_budget_, Millis(read_timeout_sec_, read_timeout_usec_),
                       Millis(write_timeout_sec_, write_timeout_usec_));
    bool closed = false;
    ok = process_request(strm, left == 1, closed, nullptr);
    if (!ok || closed || strm.exhausted()) break;
  }
  shutdown(sock, SHUT_RDWR);
  close(sock);
  return ok;
}

}  // namespace tavo_server
