#include "auth/login_gate.h"

#include <thread>

namespace tavo_server {

LoginGate::Outcome LoginGate::Try(const Attempt& a, AccountOps& ops) {
  Outcome out;
  const std::string device =
      a.device_cookie.empty() ? "" : devices_.Verify(a.device_cookie, a.account);
  LoginThrottle::Ticket ticket = throttle_.Begin(a.account, a.address, device);
  if (ticket.retry_after > 0) {
    out.status = 429;
    out.retry_after = ticket.retry_after;
    out.error = "too many failed logins; try again in " + std::to_string(ticket.retry_after) + " s";
    return out;
  }
  // No lock is held here: the delay slows this try only.
  if (ticket.delay.count() > 0) std::this_thread::sleep_for(ticket.delay);
  const LoginResult result = ops.CheckLogin(a.account, a.password, &out.who);
  throttle_.Finish(ticket, result == LoginResult::kOk);
  switch (result) {
    case LoginResult::kOk:
      out.status = 200;
      out.device_cookie = devices_.Issue(out.who.name);
      break;
    case LoginResult::kDenied:
      out.status = 401;
      out.error = kLoginFailedMessage;
      break;
    case LoginResult::kUnavailable:
      out.status = 500;
      out.error = "the account files cannot be read";
      break;
  }
  return out;
}

}  // namespace tavo_server
