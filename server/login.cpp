#include "login.h"

#include <algorithm>
#include <cctype>

#include "tavo/user.h"

namespace tavo_server {
namespace {

std::string AccountKey(const std::string& account) {
  std::string key = "account:";
  for (char c : account) key += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return key;
}

std::string AddressKey(const std::string& address) { return "address:" + address; }

}  // namespace

LoginResult CheckLogin(const std::string& account, const std::string& password) {
  if (account.empty() || account.size() > 256 || password.size() > 4096)
    return LoginResult::kBadCredentials;
  int ok = TAVOUserCheckPassword(account.c_str(), password.c_str());
  if (ok < 0) return LoginResult::kUnavailable;
  if (ok != 1) return LoginResult::kBadCredentials;
  if (TLIBGroupIsAdminGroupMem(account.c_str(), 0) != 1) return LoginResult::kNotAdministrator;
  if (TAVOUserCheckExpired(account.c_str()) != 0) return LoginResult::kNotAdministrator;
  return LoginResult::kOk;
}

int LoginThrottle::RetryAfter(const std::string& account, const std::string& address) {
  std::lock_guard<std::mutex> lock(mutex_);
  Clock::time_point now = Clock::now();
  Prune(now);
  return std::max(WaitFor(AccountKey(account), max_failures_, now),
                  WaitFor(AddressKey(address), 4 * max_failures_, now));
}

void LoginThrottle::RecordFailure(const std::string& account, const std::string& address) {
  std::lock_guard<std::mutex> lock(mutex_);
  Clock::time_point now = Clock::now();
  failures_[AccountKey(account)].push_back(now);
  failures_[AddressKey(address)].push_back(now);
}

void LoginThrottle::RecordSuccess(const std::string& account) {
  std::lock_guard<std::mutex> lock(mutex_);
  failures_.erase(AccountKey(account));
}

int LoginThrottle::WaitFor(const std::string& key, int limit, Clock::time_point now) {
  auto it = failures_.find(key);
  if (it == failures_.end() || static_cast<int>(it->second.size()) < limit) return 0;
  // The try is allowed again once enough failures have left the window.
  Clock::time_point free_at = it->second[it->second.size() - limit] + window_;
  auto wait = std::chrono::duration_cast<std::chrono::seconds>(free_at - now).count() + 1;
  return static_cast<int>(std::max<long long>(wait, 1));
}

void LoginThrottle::Prune(Clock::time_point now) {
  for (auto it = failures_.begin(); it != failures_.end();) {
    auto& times = it->second;
    while (!times.empty() && now - times.front() > window_) times.pop_front();
    it = times.empty() ? failures_.erase(it) : std::next(it);
  }
}

}  // namespace tavo_server
