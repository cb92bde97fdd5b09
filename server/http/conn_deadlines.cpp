#include "http/conn_deadlines.h"

#include <cstring>

namespace tavo_server {
namespace {

// True when `fd` is still connected to the recorded peer.
bool SamePeer(const ConnDeadlines::Slot& s) {
  sockaddr_storage now{};
  socklen_t len = sizeof(now);
  if (getpeername(s.fd, reinterpret_cast<sockaddr*>(&now), &len) != 0) return false;
  return len == s.peer_len && memcmp(&now, &s.peer, len) == 0;
}

}  // namespace

ConnDeadlines::ConnDeadlines(std::chrono::milliseconds tick)
    : tick_(tick), sweeper_([this] { Sweep(); }) {}

ConnDeadlines::~ConnDeadlines() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    stopping_ = true;
  }
  wake_.notify_one();
  sweeper_.join();
}

int64_t ConnDeadlines::NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void ConnDeadlines::Add(Slot* slot) {
  std::lock_guard<std::mutex> lock(mu_);
  slots_.insert(slot);
}

void ConnDeadlines::Remove(Slot* slot) {
  std::lock_guard<std::mutex> lock(mu_);
  slots_.erase(slot);
}

void ConnDeadlines::Set(Slot* slot, std::chrono::milliseconds after) {
  slot->deadline_ms.store(after.count() > 0 ? NowMs() + after.count() : 0,
                          std::memory_order_relaxed);
}

void ConnDeadlines::Sweep() {
  std::unique_lock<std::mutex> lock(mu_);
  while (!stopping_) {
    wake_.wait_for(lock, tick_);
    const int64_t now = NowMs();
    // Holding the lock keeps every registered slot (and so its descriptor,
    // which is closed only after Remove) alive while it is checked.
    for (Slot* s : slots_) {
      const int64_t d = s->deadline_ms.load(std::memory_order_relaxed);
      if (d == 0 || d > now || s->cut.load(std::memory_order_relaxed)) continue;
      if (!SamePeer(*s)) continue;
      s->cut.store(true, std::memory_order_relaxed);
      shutdown(s->fd, SHUT_RDWR);
    }
  }
}

}  // namespace tavo_server
