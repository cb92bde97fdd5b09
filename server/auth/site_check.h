// SitePolicy: which Host and Origin headers a request may carry.
//
// Host: a page of another site can reach a server on a private or loopback
// address through DNS rebinding (its own name, made to resolve to the
// server); its requests then carry that other name in Host. So Host must be
// an IP address literal (a browser sends one only when the user typed or
// followed the address itself), "localhost", or one of the names the server
// is configured for (--server-name, and the machine's own host name). The port of Host is not
// compared (a proxy in front may use another one). A request without Host is refused.
//
// Origin: a state-changing request that carries Origin must come from the
// server's own origin: the scheme of the server (https with TLS) and exactly
// the request's Host. "null" and every other origin are foreign. Requests
// without Origin (scripts, curl) are allowed; browsers send it on every
// cross-site POST.
//
// Thread-safety: const after construction.
#ifndef TAVO_SERVER_SITE_CHECK_H_
#define TAVO_SERVER_SITE_CHECK_H_

#include <string>
#include <vector>

namespace tavo_server {

class SitePolicy {
 public:
  // `names`: extra host names (compared ignoring ASCII case); `tls`: served over HTTPS.
  SitePolicy(std::vector<std::string> names, bool tls) : names_(std::move(names)), tls_(tls) {}

  bool HostAllowed(const std::string& host_header) const;
  // For POST and other state-changing methods: false for a foreign Origin.
  bool OriginAllowed(const std::string& origin_header, bool origin_present,
                     const std::string& host_header) const;

 private:
  std::vector<std::string> names_;
  bool tls_;
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_SITE_CHECK_H_
