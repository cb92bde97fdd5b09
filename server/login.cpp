#include "login.h"

#include <crypt.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>

#include "tavo/user.h"
#include "tavo/util.h"

namespace tavo_server {
namespace {

// Spellings that name one account share one key, as in the account files.
std::string AccountKey(const std::string& account) {
  return "account:" + tavo::CaseFoldKey(account);
}

std::string AddressKey(const std::string& address) { return "address:" + address; }

// Spends about the time of checking a password against a real hash.
void CheckAgainstDummyHash(const std::string& password) {
  static const std::string dummy = [] {
    std::unique_ptr<char, decltype(&free)> salt(crypt_gensalt_ra("$y$", 0, nullptr, 0), &free);
    auto data = std::make_unique<crypt_data>();
    const char* h = salt ? crypt_r("dummy password", salt.get(), data.get()) : nullptr;
    return std::string(h != nullptr && h[0] != '*' ? h : "");
  }();
  if (dummy.empty()) return;
  auto data = std::make_unique<crypt_data>();
  crypt_r(password.c_str(), dummy.c_str(), data.get());
}

}  // namespace

LoginResult CheckLogin(const std::string& account, const std::string& password, std::string* name) {
  if (account.empty() || account.size() > 256 || password.size() > 4096)
    return LoginResult::kBadCredentials;
  int ok = TAVOUserCheckPassword(account.c_str(), password.c_str());
  if (ok < 0) return LoginResult::kUnavailable;
  if (ok != 1) {
    // Unknown, locked and expired accounts skip the hash check below.
    if (TAVOUserCheckExpired(account.c_str()) != 0) CheckAgainstDummyHash(password);
    return LoginResult::kBadCredentials;
  }
  if (TLIBGroupIsAdminGroupMem(account.c_str(), 0) != 1) return LoginResult::kNotAdministrator;
  if (TAVOUserCheckExpired(account.c_str()) != 0) return LoginResult::kNotAdministrator;
  SDK::User* user = SDK::User::LoadUser(account);
  *name = user != nullptr ? user->GetName() : account;
  SDK::User::Release(user);
  return LoginResult::kOk;
}

std::mutex& LoginThrottle::AccountLock(const std::string& account) {
  const size_t n = sizeof(account_locks_) / sizeof(account_locks_[0]);
  return account_locks_[std::hash<std::string>()(AccountKey(account)) % n];
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
