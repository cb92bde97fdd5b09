// BoundedServer: the HTTP library's server with a bound on what one request
// may make it read.
//
// The library reads a request's line and header lines whole into memory
// before it checks their lengths, and keeps every header line before the
// header count is checked, so a client that never ends a line, or sends
// header lines without end, would make it grow without limit. BoundedServer
// serves each connection itself (the same keep-alive loop and timeouts as
// the library) through a stream that refuses to read more than
// `request_budget` bytes for one request; the request then fails as
// malformed (HTTP 400) and the connection is closed. The read timeout bounds
// the receiving of a whole request, not each receive, so a client trickling
// bytes cannot hold a worker past it either.
//
// Thread-safety: as httplib::Server; set_request_budget before serving.
#ifndef TAVO_SERVER_BOUNDED_SERVER_H_
#define TAVO_SERVER_BOUNDED_SERVER_H_

#include <httplib.h>

#include <cstddef>

namespace tavo_server {

class BoundedServer : public httplib::Server {
 public:
  void set_request_budget(size_t bytes) { request_budget_ = bytes; }

 protected:
  bool process_and_close_socket(socket_t sock) override;

 private:
  // Waits up to the keep-alive time for the next request (no wait when some
  // of it is `buffered` already); false when none comes, the peer closed, or
  // the server is stopping.
  bool WaitForRequest(socket_t sock, bool buffered);

  size_t request_budget_ = 1 << 20;
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_BOUNDED_SERVER_H_
