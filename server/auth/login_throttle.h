// LoginThrottle: limits password guessing without letting strangers lock an
// administrator out.
//
// Failed logins are counted in a sliding window under three keys: the pair
// (account, client address), the client address alone (IPv6 clients by their
// /64 network, as one host usually holds a whole one), and the account across
// all addresses. The first two refuse further tries for a while (the caller
// answers 429): they only ever hold back the address that failed. The account
// key never refuses: it delays each try of that account by a time that grows
// with its failures, so guesses spread over many addresses get slow while the
// administrator still gets in. A browser holding a valid device cookie of the
// account (device_cookie.h), one that logged in successfully before, skips the
// address limits and the delay, until that cookie itself has failed
// `per_device` times in the window.
//
// Tries are counted as failures when they start (Begin) and taken back on
// success (Finish), so tries sent at once cannot overshoot a limit and no lock
// is held while a password is checked. A try that would pass the limit only
// because of tries still under way waits (at most `pending_wait`) for them to
// end, so that right passwords sent at once are not refused. Account names are compared under the
// account files' case folding, so "Admin" and "ADMIN" share one count.
//
// Thread-safety: all methods may be called from any thread.
#ifndef TAVO_SERVER_LOGIN_THROTTLE_H_
#define TAVO_SERVER_LOGIN_THROTTLE_H_

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <string>

namespace tavo_server {

struct ThrottleLimits {
  int per_pair = 5;          // failures of one account from one address
  int per_address = 20;      // failures from one address, any account
  int per_device = 5;        // failures with one device cookie
  int free_per_account = 5;  // failures of one account before tries are delayed
  std::chrono::seconds window{60};
  std::chrono::milliseconds first_delay{250};  // doubled with each further failure
  std::chrono::milliseconds max_delay{4000};
  std::chrono::milliseconds pending_wait{10000};
};

class LoginThrottle {
 public:
  using Clock = std::chrono::steady_clock;

  struct Ticket {
    int retry_after = 0;                         // > 0: refused; seconds until a try may succeed
    Clock::duration delay{};                     // wait this long before checking the password
    std::string pair, address, account, device;  // keys counted
    Clock::time_point at;
  };

  explicit LoginThrottle(const ThrottleLimits& limits) : limits_(limits) {}

  // Starts a try of `account` from `address`; `device` is the id of a valid
  // device cookie of this account, or "". A refused try counts nothing.
  Ticket Begin(const std::string& account, const std::string& address, const std::string& device,
               Clock::time_point now = Clock::now());
  // Ends an allowed try. A success forgets the failures of the account, of
  // the pair and of the device, and takes this try back from the address.
  void Finish(const Ticket& ticket, bool success);

  // The key under which `address` is counted (IPv6: its /64 network).
  static std::string AddressKey(const std::string& address);

 private:
  size_t Count(const std::string& key);  // failures and tries under way; mutex_ held
  // Seconds until `key` is below `limit` again (0: now); -1 when it is only
  // held by tries under way. mutex_ held.
  int Wait(const std::string& key, int limit, Clock::time_point now);
  void Prune(Clock::time_point now);  // mutex_ held

  const ThrottleLimits limits_;
  std::mutex mutex_;
  std::condition_variable finished_;
  std::map<std::string, std::deque<Clock::time_point>> failures_;
  std::map<std::string, int> pending_;  // tries under way per key
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_LOGIN_THROTTLE_H_
