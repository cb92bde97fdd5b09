// DeviceCookies: signed cookies that mark a browser which has logged in to an
// account successfully before.
//
// A cookie reads "ISSUED.NONCE.MAC": the issue time in seconds since 1970,
// 128 random bits, and an HMAC-SHA256 over both and the account's case-folded
// name under a key drawn when the server starts (so a restart forgets every
// device; browsers then log in once without the exemption). A cookie is valid
// for one account and `lifetime` after it was issued; its id is the nonce,
// under which the throttle counts the cookie's own failures.
//
// Thread-safety: const methods only; may be shared.
#ifndef TAVO_SERVER_DEVICE_COOKIE_H_
#define TAVO_SERVER_DEVICE_COOKIE_H_

#include <chrono>
#include <ctime>
#include <string>

namespace tavo_server {

class DeviceCookies {
 public:
  // `key`: at least 32 random bytes (hex is fine); an empty key makes every
  // cookie invalid and Issue return "".
  DeviceCookies(std::string key, std::chrono::seconds lifetime)
      : key_(std::move(key)), lifetime_(lifetime) {}

  // A new cookie value for `account`, or "" when none can be made.
  std::string Issue(const std::string& account, time_t now = time(nullptr)) const;
  // The cookie's id when `value` is a valid cookie of `account`, else "".
  std::string Verify(const std::string& value, const std::string& account,
                     time_t now = time(nullptr)) const;
  std::chrono::seconds lifetime() const { return lifetime_; }

 private:
  std::string Mac(const std::string& issued, const std::string& nonce,
                  const std::string& account) const;

  const std::string key_;
  const std::chrono::seconds lifetime_;
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_DEVICE_COOKIE_H_
