#include "privsep/login_limit.h"

#include <algorithm>

#include "tavo/util.h"

namespace tavo_server {

void LoginLimit::Prune(Clock::time_point now) {
  for (auto it = counts_.begin(); it != counts_.end();) {
    auto& f = it->second.failures;
    while (!f.empty() && now - f.front() > limits_.window) f.pop_front();
    it = f.empty() && it->second.pending == 0 ? counts_.erase(it) : std::next(it);
  }
}

bool LoginLimit::Begin(const std::string& account, Clock::time_point now) {
  const std::string key = tavo::CaseFoldKey(account);
  std::lock_guard<std::mutex> lock(mu_);
  Prune(now);
  Count& c = counts_[key];
  const long long over = static_cast<long long>(c.failures.size()) - limits_.free_per_account;
  if (over >= 0) {
    if (c.pending > 0) return false;
    const Clock::duration gap = std::min<Clock::duration>(
        limits_.first_delay * (1LL << std::min<long long>(over, 20)), limits_.max_delay);
    if (now - c.last_start < gap) return false;
  }
  ++c.pending;
  c.last_start = now;
  return true;
}

void LoginLimit::Cancel(const std::string& account) {
  const std::string key = tavo::CaseFoldKey(account);
  std::lock_guard<std::mutex> lock(mu_);
  Count& c = counts_[key];
  if (c.pending > 0) --c.pending;
}

void LoginLimit::End(const std::string& account, bool success, Clock::time_point now) {
  const std::string key = tavo::CaseFoldKey(account);
  std::lock_guard<std::mutex> lock(mu_);
  Count& c = counts_[key];
  if (c.pending > 0) --c.pending;
  if (success) {
    c.failures.clear();
  } else {
    c.failures.push_back(now);
  }
}

}  // namespace tavo_server
