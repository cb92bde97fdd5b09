// LoginLimit: the limit on password checks kept by the side that checks
// them, whatever the process that forwards the tries has counted.
//
// Failed checks are counted per account (under the account files' case
// folding) over a sliding `window`. Up to `free` failures, tries are checked
// as they come. Beyond that, an account is checked once at a time, and only
// when the last check of it began at least first_delay * 2^(failures - free)
// ago (at most max_delay): the pace that the network front already imposes
// on an honest client (login_throttle.h). A try that comes sooner is refused
// without looking at its password. A success forgets the account's failures;
// a try that judged no password (Cancel) counts for neither.
//
// Thread-safety: all methods may be called from any thread.
#ifndef TAVO_SERVER_PRIVSEP_LOGIN_LIMIT_H_
#define TAVO_SERVER_PRIVSEP_LOGIN_LIMIT_H_

#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <string>

#include "auth/login_throttle.h"

namespace tavo_server {

class LoginLimit {
 public:
  using Clock = std::chrono::steady_clock;

  explicit LoginLimit(const ThrottleLimits& limits = ThrottleLimits()) : limits_(limits) {}

  // Whether the password of `account` may be checked now; when it returns
  // true the caller must call End with the outcome.
  bool Begin(const std::string& account, Clock::time_point now = Clock::now());
  void End(const std::string& account, bool success, Clock::time_point now = Clock::now());
  // Ends a try that neither failed nor succeeded (the files could not be read).
  void Cancel(const std::string& account);

 private:
  struct Count {
    std::deque<Clock::time_point> failures;
    Clock::time_point last_start{};
    int pending = 0;  // checks under way
  };
  void Prune(Clock::time_point now);  // mu_ held

  const ThrottleLimits limits_;
  std::mutex mu_;
  std::map<std::string, Count> counts_;  // by folded account name
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_PRIVSEP_LOGIN_LIMIT_H_
