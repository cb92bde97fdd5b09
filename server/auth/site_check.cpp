#include "auth/site_check.h"

#include <arpa/inet.h>
#include <strings.h>

namespace tavo_server {
namespace {

// Splits "name:port", "[v6]:port", "name", "[v6]" into the host part (without
// brackets) and whether it was bracketed; false when malformed.
bool HostPart(const std::string& host, std::string* out, bool* bracketed) {
  if (host.empty()) return false;
  std::string rest;
  if (host[0] == '[') {
    size_t close = host.find(']');
    if (close == std::string::npos) return false;
    *out = host.substr(1, close - 1);
    *bracketed = true;
    rest = host.substr(close + 1);
  } else {
    size_t colon = host.find(':');
    *out = host.substr(0, colon);
    *bracketed = false;
    rest = colon == std::string::npos ? "" : host.substr(colon);
  }
  if (!rest.empty()) {
    if (rest[0] != ':' || rest.size() < 2 || rest.size() > 6) return false;
    if (rest.find_first_not_of("0123456789", 1) != std::string::npos) return false;
  }
  return !out->empty();
}

}  // namespace

bool SitePolicy::HostAllowed(const std::string& host_header) const {
  std::string host;
  bool bracketed = false;
  if (!HostPart(host_header, &host, &bracketed)) return false;
  unsigned char addr[16];
  if (bracketed) return inet_pton(AF_INET6, host.c_str(), addr) == 1;
  // A dotted quad as inet_pton reads it (no octal or short forms).
  if (inet_pton(AF_INET, host.c_str(), addr) == 1) return true;
  if (strcasecmp(host.c_str(), "localhost") == 0) return true;
  for (const std::string& n : names_)
    if (strcasecmp(host.c_str(), n.c_str()) == 0) return true;
  return false;
}

bool SitePolicy::OriginAllowed(const std::string& origin, bool origin_present,
                               const std::string& host_header) const {
  if (!origin_present) return true;
  const std::string own = std::string(tls_ ? "https://" : "http://") + host_header;
  return HostAllowed(host_header) && strcasecmp(origin.c_str(), own.c_str()) == 0;
}

}  // namespace tavo_server
