// Login: checks an administrator's credentials and slows down guessing.
//
// CheckLogin accepts an account whose password matches its hash in
// ROOT/etc/shadow (TAVOUserCheckPassword), that is a member of
// "administrators" (TLIBGroupIsAdminGroupMem == 1) and whose account is valid
// (TAVOUserCheckExpired == 0). The account files match names ignoring case,
// so on success *name receives the name as the account files spell it. A
// wrong password of an unknown or locked name takes about as long as one of a
// valid account, so the answer time does not tell which names exist.
//
// LoginThrottle counts failed logins per account and per client address in a
// sliding window. Account names are compared under the same case folding as
// the account files (every character to its upper-case form, so "Admin" and
// "adm\u0131n" count as "admin"). Once an account has `max_failures` failures
// within `window`, or an address four times as many (several people may share
// one address), further tries with that account or from that address are
// refused before any password is checked, until enough failures have left the
// window.
//
// Thread-safety: CheckLogin is reentrant; LoginThrottle may be shared.
#ifndef TAVO_SERVER_LOGIN_H_
#define TAVO_SERVER_LOGIN_H_

#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <string>

namespace tavo_server {

enum class LoginResult {
  kOk,
  kBadCredentials,    // unknown account or wrong password: HTTP 401
  kNotAdministrator,  // right password, not a valid administrator: HTTP 403
  kUnavailable,       // the account files cannot be read: HTTP 500
};

LoginResult CheckLogin(const std::string& account, const std::string& password, std::string* name);

class LoginThrottle {
 public:
  using Clock = std::chrono::steady_clock;

  LoginThrottle(int max_failures, std::chrono::seconds window)
      : max_failures_(max_failures), window_(window) {}

  // Tries of one account run one at a time: hold this lock from RetryAfter to
  // RecordFailure or RecordSuccess, so that tries sent at once cannot overshoot
  // the limit. (Accounts share a few locks; different ones mostly do not wait.)
  std::mutex& AccountLock(const std::string& account);
  // Seconds to wait before `account` may try again from `address`; 0 when a
  // try is allowed now.
  int RetryAfter(const std::string& account, const std::string& address);
  void RecordFailure(const std::string& account, const std::string& address);
  // Forgets the account's failures (the address keeps its own).
  void RecordSuccess(const std::string& account);

 private:
  int WaitFor(const std::string& key, int limit, Clock::time_point now);  // mutex_ held
  void Prune(Clock::time_point now);                            // mutex_ held

  const int max_failures_;
  const std::chrono::seconds window_;
  std::mutex mutex_;
  std::map<std::string, std::deque<Clock::time_point>> failures_;
  std::mutex account_locks_[16];
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_LOGIN_H_
