#include "privsep/grant_book.h"

#include <string.h>

#include <ctime>

#include "auth/random.h"

namespace tavo_server {
namespace {

// Splits "SID.ISSUED.MAC"; false when it is not of that form.
bool SplitGrant(const std::string& grant, std::string* sid, std::string* issued, std::string* mac) {
  const size_t a = grant.find('.');
  const size_t b = a == std::string::npos ? a : grant.find('.', a + 1);
  if (b == std::string::npos || grant.size() > 256) return false;
  *sid = grant.substr(0, a);
  *issued = grant.substr(a + 1, b - a - 1);
  *mac = grant.substr(b + 1);
  return !sid->empty() && !issued->empty() && !mac->empty();
}

}  // namespace

std::string GrantBook::Mac(const std::string& key, const LoginIdentity& who, const std::string& sid,
                           const std::string& issued) {
  return HmacSha256Hex(key, "grant\n" + who.name + "\n" + who.stamp + "\n" + sid + "\n" + issued);
}

void GrantBook::DrawKeyLocked() {
  WipeLocked();
  key_ = RandomHex(32);
}

void GrantBook::WipeLocked() {
  if (!key_.empty()) explicit_bzero(&key_[0], key_.size());
  key_.clear();
  live_.clear();
}

std::string GrantBook::Issue(const LoginIdentity& who, Clock::time_point now) {
  const std::string sid = RandomHex(16);
  const std::string issued = std::to_string(static_cast<long long>(time(nullptr)));
  std::lock_guard<std::mutex> lock(mu_);
  if (key_.empty()) DrawKeyLocked();
  const std::string mac = Mac(key_, who, sid, issued);
  if (sid.empty() || mac.empty()) return "";
  // Expired grants go first, then the oldest while the book is full.
  for (auto it = live_.begin(); it != live_.end();)
    it = now - it->second.issued > lifetime_ ? live_.erase(it) : std::next(it);
  while (live_.size() >= max_live_) {
    auto oldest = live_.begin();
    for (auto it = live_.begin(); it != live_.end(); ++it)
      if (it->second.issued < oldest->second.issued) oldest = it;
    live_.erase(oldest);
  }
  live_[sid] = Live{who.name, now};
  return sid + "." + issued + "." + mac;
}

bool GrantBook::Valid(const LoginIdentity& who, Clock::time_point now) {
  std::string sid, issued, mac;
  if (!SplitGrant(who.grant, &sid, &issued, &mac)) return false;
  std::lock_guard<std::mutex> lock(mu_);
  if (key_.empty()) return false;
  const std::string want = Mac(key_, who, sid, issued);
  if (want.empty() || !SecretEquals(want, mac)) return false;
  auto it = live_.find(sid);
  if (it == live_.end() || it->second.name != who.name) return false;
  if (now - it->second.issued > lifetime_) {
    live_.erase(it);
    return false;
  }
  return true;
}

void GrantBook::Revoke(const LoginIdentity& who) {
  if (!Valid(who)) return;
  std::lock_guard<std::mutex> lock(mu_);
  live_.erase(who.grant.substr(0, who.grant.find('.')));
}

void GrantBook::Rekey() {
  std::lock_guard<std::mutex> lock(mu_);
  DrawKeyLocked();
}

void GrantBook::Wipe() {
  std::lock_guard<std::mutex> lock(mu_);
  WipeLocked();
}

std::string GrantBook::KeyForTesting() {
  std::lock_guard<std::mutex> lock(mu_);
  return key_;
}

}  // namespace tavo_server
