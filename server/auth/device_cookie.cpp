#include "auth/device_cookie.h"

#include <cstdlib>

#include "auth/random.h"
#include "tavo/util.h"

namespace tavo_server {

std::string DeviceCookies::Mac(const std::string& issued, const std::string& nonce,
                               const std::string& account) const {
  return HmacSha256Hex(key_,
                       "device\n" + issued + "\n" + nonce + "\n" + tavo::CaseFoldKey(account));
}

std::string DeviceCookies::Issue(const std::string& account, time_t now) const {
  const std::string issued = std::to_string(static_cast<long long>(now));
  const std::string nonce = RandomHex(16);
  const std::string mac = nonce.empty() ? "" : Mac(issued, nonce, account);
  return mac.empty() ? "" : issued + "." + nonce + "." + mac;
}

std::string DeviceCookies::Verify(const std::string& value, const std::string& account,
                                  time_t now) const {
  const size_t a = value.find('.');
  const size_t b = a == std::string::npos ? a : value.find('.', a + 1);
  if (b == std::string::npos || value.size() > 200) return "";
  const std::string issued = value.substr(0, a), nonce = value.substr(a + 1, b - a - 1);
  char* end = nullptr;
  const long long t = strtoll(issued.c_str(), &end, 10);
  if (issued.empty() || *end != '\0' || nonce.size() != 32 || t > now ||
      now - t > lifetime_.count())
    return "";
  const std::string mac = Mac(issued, nonce, account);
  return !mac.empty() && SecretEquals(mac, value.substr(b + 1)) ? nonce : "";
}

}  // namespace tavo_server
