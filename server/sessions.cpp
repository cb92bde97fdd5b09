#include "sessions.h"

#include "random.h"

namespace tavo_server {

bool SessionStore::Create(const std::string& account, Session* out) {
  Session s;
  s.id = RandomHex(32);
  s.token = RandomHex(32);
  if (s.id.empty() || s.token.empty()) return false;
  s.account = account;
  s.last_used = Clock::now();
  std::lock_guard<std::mutex> lock(mutex_);
  DropExpired(s.last_used);
  while (!by_id_.empty() && by_id_.size() >= max_sessions_) {
    auto oldest = by_id_.begin();
    for (auto it = by_id_.begin(); it != by_id_.end(); ++it)
      if (it->second.last_used < oldest->second.last_used) oldest = it;
    id_by_token_.erase(oldest->second.token);
    by_id_.erase(oldest);
  }
  by_id_[s.id] = s;
  id_by_token_[s.token] = s.id;
  *out = s;
  return true;
}

bool SessionStore::FindByToken(const std::string& token, Session* out) {
  if (token.empty()) return false;
  std::string id;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = id_by_token_.find(token);
    if (it == id_by_token_.end()) return false;
    id = it->second;
  }
  return FindById(id, out);
}

bool SessionStore::FindById(const std::string& id, Session* out) {
  if (id.empty()) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = by_id_.find(id);
  if (it == by_id_.end()) return false;
  Clock::time_point now = Clock::now();
  if (!Alive(it->second, now)) {
    id_by_token_.erase(it->second.token);
    by_id_.erase(it);
    return false;
  }
  it->second.last_used = now;
  *out = it->second;
  return true;
}

void SessionStore::Remove(const std::string& id_or_token) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto t = id_by_token_.find(id_or_token);
  std::string id = t != id_by_token_.end() ? t->second : id_or_token;
  auto it = by_id_.find(id);
  if (it == by_id_.end()) return;
  id_by_token_.erase(it->second.token);
  by_id_.erase(it);
}

size_t SessionStore::Size() {
  std::lock_guard<std::mutex> lock(mutex_);
  DropExpired(Clock::now());
  return by_id_.size();
}

void SessionStore::DropExpired(Clock::time_point now) {
  for (auto it = by_id_.begin(); it != by_id_.end();) {
    if (Alive(it->second, now)) {
      ++it;
    } else {
      id_by_token_.erase(it->second.token);
      it = by_id_.erase(it);
    }
  }
}

}  // namespace tavo_server
