// LoginGate: one login try from start to end, independent of the HTTP layer.
//
// It applies the throttle (login_throttle.h), waits the delay it asks for,
// checks the credentials (login.h) and, on success, issues a new device
// cookie. Every failed check gets the same answer (status 401 and one
// message), whatever failed, so the answer tells nothing about the account.
//
// Thread-safety: Try may be called from any thread at once.
#ifndef TAVO_SERVER_LOGIN_GATE_H_
#define TAVO_SERVER_LOGIN_GATE_H_

#include <string>

#include "auth/device_cookie.h"
#include "auth/login.h"
#include "auth/login_throttle.h"
#include "privsep/account_ops.h"

namespace tavo_server {

constexpr const char kLoginFailedMessage[] = "wrong account or password";

class LoginGate {
 public:
  struct Attempt {
    std::string account, password;
    std::string address;        // the client's numeric address
    std::string device_cookie;  // the browser's device cookie, or ""
  };
  struct Outcome {
    int status = 401;   // 200, 401, 429 (retry_after set) or 500
    std::string error;  // the message of a refusal
    int retry_after = 0;
    LoginIdentity who;          // on success
    std::string device_cookie;  // on success: a fresh device cookie ("" if none)
  };

  LoginGate(const ThrottleLimits& limits, const std::string& device_key,
            std::chrono::seconds device_lifetime)
      : throttle_(limits), devices_(device_key, device_lifetime) {}

  // Checks the password through `ops` (privsep/account_ops.h).
  Outcome Try(const Attempt& a, AccountOps& ops);
  const DeviceCookies& devices() const { return devices_; }

 private:
  LoginThrottle throttle_;
  DeviceCookies devices_;
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_LOGIN_GATE_H_
