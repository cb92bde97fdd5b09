#include "auth/sessions.h"

#include "auth/random.h"

namespace tavo_server {
namespace {

constexpr size_t kSecretBytes = 32;
constexpr size_t kPrefix = 16;  // hex digits used to find a secret

std::string Prefix(const std::string& secret) { return secret.substr(0, kPrefix); }

}  // namespace

bool SessionStore::Create(const std::string& account, const std::string& stamp, Session* out,
                          const std::string& grant) {
  Session s;
  s.grant = grant;
  s.account = account;
  s.stamp = stamp;
  std::lock_guard<std::mutex> lock(mutex_);
  // A prefix already in use (a 2^-64 chance) is drawn again.
  do {
    s.id = RandomHex(kSecretBytes);
    s.token = RandomHex(kSecretBytes);
    if (s.id.empty() || s.token.empty()) return false;
  } while (by_id_.count(Prefix(s.id)) != 0 || id_by_token_.count(Prefix(s.token)) != 0);
  s.created = s.last_used = Clock::now();
  DropExpired(s.last_used);
  while (!by_id_.empty() && by_id_.size() >= max_sessions_) {
    auto oldest = by_id_.begin();
    for (auto it = by_id_.begin(); it != by_id_.end(); ++it)
      if (it->second.last_used < oldest->second.last_used) oldest = it;
    Erase(oldest);
  }
  by_id_[Prefix(s.id)] = s;
  id_by_token_[Prefix(s.token)] = Prefix(s.id);
  *out = s;
  return true;
}

std::map<std::string, SessionStore::Session>::iterator SessionStore::LookupId(
    const std::string& id) {
  if (id.size() != 2 * kSecretBytes) return by_id_.end();
  auto it = by_id_.find(Prefix(id));
  return it != by_id_.end() && SecretEquals(it->second.id, id) ? it : by_id_.end();
}

std::map<std::string, SessionStore::Session>::iterator SessionStore::LookupToken(
    const std::string& token) {
  if (token.size() != 2 * kSecretBytes) return by_id_.end();
  auto t = id_by_token_.find(Prefix(token));
  if (t == id_by_token_.end()) return by_id_.end();
  auto it = by_id_.find(t->second);
  return it != by_id_.end() && SecretEquals(it->second.token, token) ? it : by_id_.end();
}

void SessionStore::Erase(std::map<std::string, Session>::iterator it, bool report) {
  if (report && ended_.size() < max_sessions_) ended_.push_back(it->second);
  id_by_token_.erase(Prefix(it->second.token));
  by_id_.erase(it);
}

bool SessionStore::Use(std::map<std::string, Session>::iterator it, Session* out) {
  if (it == by_id_.end()) return false;
  Clock::time_point now = Clock::now();
  if (!Alive(it->second, now)) {
    Erase(it);
    return false;
  }
  it->second.last_used = now;
  *out = it->second;
  return true;
}

bool SessionStore::FindByToken(const std::string& token, Session* out) {
  std::lock_guard<std::mutex> lock(mutex_);
  return Use(LookupToken(token), out);
}

bool SessionStore::Alive(const std::string& token) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = LookupToken(token);
  return it != by_id_.end() && Alive(it->second, Clock::now());
}

bool SessionStore::FindById(const std::string& id, Session* out) {
  std::lock_guard<std::mutex> lock(mutex_);
  return Use(LookupId(id), out);
}

bool SessionStore::Remove(const std::string& id_or_token, Session* removed, bool report) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = LookupToken(id_or_token);
  if (it == by_id_.end()) it = LookupId(id_or_token);
  if (it == by_id_.end()) return false;
  if (removed) *removed = it->second;
  Erase(it, report);
  return true;
}

bool SessionStore::HasEnded() {
  std::lock_guard<std::mutex> lock(mutex_);
  return !ended_.empty();
}

size_t SessionStore::Size() {
  std::lock_guard<std::mutex> lock(mutex_);
  DropExpired(Clock::now());
  return by_id_.size();
}

std::vector<SessionStore::Session> SessionStore::TakeEnded() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<Session> out;
  out.swap(ended_);
  return out;
}

void SessionStore::DropExpired(Clock::time_point now) {
  for (auto it = by_id_.begin(); it != by_id_.end();) {
    auto next = std::next(it);
    if (!Alive(it->second, now)) Erase(it);
    it = next;
  }
}

}  // namespace tavo_server
