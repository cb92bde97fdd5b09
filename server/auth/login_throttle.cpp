#include "auth/login_throttle.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>

#include "tavo/util.h"

namespace tavo_server {

std::string LoginThrottle::AddressKey(const std::string& address) {
  unsigned char a[16];
  if (inet_pton(AF_INET6, address.c_str(), a) != 1) return address;
  static const unsigned char kMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  char text[64];
  if (std::equal(kMapped, kMapped + 12, a)) {
    snprintf(text, sizeof(text), "%u.%u.%u.%u", a[12], a[13], a[14], a[15]);
  } else {
    snprintf(text, sizeof(text), "%02x%02x:%02x%02x:%02x%02x:%02x%02x::/64", a[0], a[1], a[2], a[3],
             a[4], a[5], a[6], a[7]);
  }
  return text;
}

LoginThrottle::Ticket LoginThrottle::Begin(const std::string& account, const std::string& address,
                                           const std::string& device, Clock::time_point now) {
  const std::string folded = tavo::CaseFoldKey(account);
  const std::string addr = AddressKey(address);
  Ticket t;
  t.at = now;
  t.account = "u:" + folded;
  t.pair = "p:" + addr + " " + folded;
  t.address = "a:" + addr;
  if (!device.empty()) t.device = "d:" + device;
  std::unique_lock<std::mutex> lock(mutex_);
  const auto give_up = Clock::now() + limits_.pending_wait;
  for (;;) {
    Prune(now);
    const bool trusted =
        !t.device.empty() && static_cast<int>(Count(t.device)) < limits_.per_device;
    if (trusted) break;
    const int pair = Wait(t.pair, limits_.per_pair, now);
    const int address = Wait(t.address, limits_.per_address, now);
    t.retry_after = std::max(pair, address);
    if (t.retry_after > 0) return t;
    if (pair < 0 || address < 0) {
      t.retry_after = 1;
      if (finished_.wait_until(lock, give_up) == std::cv_status::timeout) return t;
      t.retry_after = 0;
      continue;
    }
    const long long over = static_cast<long long>(Count(t.account)) - limits_.free_per_account;
    if (over >= 0) {
      auto d = limits_.first_delay * (1LL << std::min<long long>(over, 20));
      t.delay = std::min<Clock::duration>(d, limits_.max_delay);
    }
    break;
  }
  for (const std::string* key : {&t.account, &t.pair, &t.address, &t.device}) {
    if (key->empty()) continue;
    failures_[*key].push_back(now);
    ++pending_[*key];
  }
  return t;
}

void LoginThrottle::Finish(const Ticket& t, bool success) {
  if (t.retry_after > 0) return;
  std::lock_guard<std::mutex> lock(mutex_);
  for (const std::string* key : {&t.account, &t.pair, &t.address, &t.device}) {
    auto p = pending_.find(*key);
    if (p != pending_.end() && --p->second <= 0) pending_.erase(p);
  }
  finished_.notify_all();
  if (!success) return;
  failures_.erase(t.account);
  failures_.erase(t.pair);
  if (!t.device.empty()) failures_.erase(t.device);
  auto it = failures_.find(t.address);
  if (it == failures_.end()) return;
  auto& times = it->second;
  auto mine = std::find(times.rbegin(), times.rend(), t.at);
  if (mine != times.rend()) times.erase(std::next(mine).base());
  if (times.empty()) failures_.erase(it);
}

size_t LoginThrottle::Count(const std::string& key) {
  auto it = failures_.find(key);
  return it == failures_.end() ? 0 : it->second.size();
}

int LoginThrottle::Wait(const std::string& key, int limit, Clock::time_point now) {
  auto it = failures_.find(key);
  if (it == failures_.end() || static_cast<int>(it->second.size()) < limit) return 0;
  auto p = pending_.find(key);
  const int pending = p == pending_.end() ? 0 : p->second;
  if (static_cast<int>(it->second.size()) - pending < limit) return -1;
  // A try is allowed again once enough failures have left the window.
  Clock::time_point free_at = it->second[it->second.size() - limit] + limits_.window;
  auto wait = std::chrono::duration_cast<std::chrono::seconds>(free_at - now).count() + 1;
  return static_cast<int>(std::max<long long>(wait, 1));
}

void LoginThrottle::Prune(Clock::time_point now) {
  for (auto it = failures_.begin(); it != failures_.end();) {
    auto& times = it->second;
    while (!times.empty() && now - times.front() > limits_.window) times.pop_front();
    it = times.empty() ? failures_.erase(it) : std::next(it);
  }
}

}  // namespace tavo_server
