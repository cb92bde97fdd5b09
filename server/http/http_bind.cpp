// HttpServer::Bind: the listening socket (or the one systemd passed), and
// the TLS key and certificate, read while the files may still be readable.
#include <fcntl.h>
#include <microhttpd.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "http/http_impl.h"
#include "http/http_server.h"
#include "tls/tls_credentials.h"

namespace tavo_server {

Status HttpServer::Bind(int* port) {
  const ServeOptions& o = impl_->options;
  // The certificate and key are read and checked now, while the files may
  // still be readable (a split server drops its rights after binding).
  if (o.tls()) {
    if (!MHD_is_feature_supported(MHD_FEATURE_TLS))
      return Status::Error("this libmicrohttpd has no TLS support");
    std::string cert, key;
    Status s = ReadTlsFiles(o.tls_cert, o.tls_key, &cert, &key);
    if (!s.ok()) return s;
    s = TlsCredentials::Install(cert, key);
    if (!s.ok()) return Status::Error(o.tls_cert + " and " + o.tls_key + ": " + s.message());
  }
  int fd = -1;
  if (o.activated_fd >= 0) {
    // A socket systemd listens on for us: served as it is.
    fd = o.activated_fd;
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    *port = o.port;
    impl_->listen_fd = fd;
    return Status::OK();
  }
  const std::string where = o.host + ":" + std::to_string(o.port);
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  if (getaddrinfo(o.host.c_str(), std::to_string(o.port).c_str(), &hints, &found) != 0)
    return Status::Error("cannot listen on " + where + ": unknown address");
  for (addrinfo* a = found; a != nullptr && fd < 0; a = a->ai_next) {
    fd = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, a->ai_protocol);
    if (fd < 0) continue;
    // Only SO_REUSEADDR: SO_REUSEPORT would let a second server share the port.
    int yes = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    if (bind(fd, a->ai_addr, a->ai_addrlen) != 0 || listen(fd, 4096) != 0) {
      close(fd);
      fd = -1;
    }
  }
  freeaddrinfo(found);
  if (fd < 0) return Status::Error("cannot listen on " + where);
  sockaddr_storage bound{};
  socklen_t len = sizeof(bound);
  getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &len);
  *port = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                            : reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
  impl_->listen_fd = fd;
  return Status::OK();
}

Status HttpServer::ReloadTls(const std::string& cert_pem, const std::string& key_pem) {
  if (!impl_->options.tls()) return Status::Error("the server does not serve HTTPS");
  return TlsCredentials::Install(cert_pem, key_pem);
}

}  // namespace tavo_server
