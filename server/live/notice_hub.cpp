#include "live/notice_hub.h"

#include <algorithm>
#include <cstring>
#include <map>

namespace tavo_server {

// One open stream. Every field but `hub_` is guarded by the hub's lock.
class NoticeHub::Stream : public StreamBody {
 public:
  Stream(NoticeHub* hub, std::string token, uint64_t seen)
      : hub_(hub), token_(std::move(token)), seen_(seen) {
    out_ = "retry: 3000\nevent: ready\ndata: {}\n\n";
  }
  ~Stream() override {
    std::lock_guard<std::mutex> lock(hub_->mu_);
    hub_->streams_.erase(this);
  }

  long Read(char* buf, size_t max) override {
    std::lock_guard<std::mutex> lock(hub_->mu_);
    if (sent_ == out_.size()) {
      out_.clear();
      sent_ = 0;
      if (!ended_ && seen_ < hub_->seq_) {
        out_ = hub_->latest_;
        seen_ = hub_->seq_;
      } else if (!ended_ && heartbeat_) {
        out_ = ": keepalive\n\n";
      }
      heartbeat_ = false;
      if (out_.empty()) return ended_ ? -1 : 0;
    }
    const size_t n = std::min(max, out_.size() - sent_);
    memcpy(buf, out_.data() + sent_, n);
    sent_ += n;
    return static_cast<long>(n);
  }

  bool Park(std::function<void()> resume) override {
    std::lock_guard<std::mutex> lock(hub_->mu_);
    if (Readable()) return false;
    resume_ = std::move(resume);
    return true;
  }

  // Whether Read would give something now.
  bool Readable() const {
    return sent_ < out_.size() || ended_ || heartbeat_ || seen_ < hub_->seq_;
  }

  NoticeHub* const hub_;
  const std::string token_;
  uint64_t seen_;
  std::string out_;  // being sent, from `sent_` on
  size_t sent_ = 0;
  bool heartbeat_ = false;
  bool ended_ = false;
  std::function<void()> resume_;  // set while the connection is suspended
};

NoticeHub::NoticeHub(Alive alive, Limits limits) : alive_(std::move(alive)), limits_(limits) {
  ticker_ = std::thread([this] { Tick(); });
}

NoticeHub::~NoticeHub() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    stopping_ = true;
  }
  wake_.notify_all();
  ticker_.join();
}

std::shared_ptr<StreamBody> NoticeHub::Open(const std::string& token) {
  std::lock_guard<std::mutex> lock(mu_);
  if (closed_) return nullptr;
  const auto same = std::count_if(streams_.begin(), streams_.end(),
                                  [&token](const Stream* s) { return s->token_ == token; });
  if (same >= limits_.per_session) return nullptr;
  auto s = std::make_shared<Stream>(this, token, seq_);
  streams_.insert(s.get());
  return s;
}

std::vector<std::function<void()>> NoticeHub::TakeWakeable() {
  std::vector<std::function<void()>> out;
  for (Stream* s : streams_) {
    if (s->resume_ && s->Readable()) {
      out.push_back(std::move(s->resume_));
      s->resume_ = nullptr;
    }
  }
  return out;
}

void NoticeHub::Publish(bool groups, bool events) {
  const long long at = std::chrono::duration_cast<std::chrono::milliseconds>(
                           std::chrono::system_clock::now().time_since_epoch())
                           .count();
  std::string text = std::string("event: change\ndata: {\"groups\":") +
                     (groups ? "true" : "false") + ",\"events\":" + (events ? "true" : "false") +
                     ",\"at\":" + std::to_string(at) + "}\n\n";
  std::vector<std::function<void()>> wake;
  {
    std::lock_guard<std::mutex> lock(mu_);
    latest_ = std::move(text);
    ++seq_;
    wake = TakeWakeable();
  }
  for (auto& resume : wake) resume();
}

std::function<void()> NoticeHub::EndLocked(Stream* s, const char* reason) {
  if (s->ended_) return nullptr;
  s->ended_ = true;
  // The end notice follows whatever is being sent.
  s->out_ += std::string("event: end\ndata: {\"reason\":\"") + reason + "\"}\n\n";
  std::function<void()> resume = std::move(s->resume_);
  s->resume_ = nullptr;
  return resume;
}

void NoticeHub::EndSession(const std::string& token) {
  std::vector<std::function<void()>> wake;
  {
    std::lock_guard<std::mutex> lock(mu_);
    for (Stream* s : streams_)
      if (s->token_ == token)
        if (auto resume = EndLocked(s, "session")) wake.push_back(std::move(resume));
  }
  for (auto& resume : wake) resume();
}

void NoticeHub::EndAll() {
  std::vector<std::function<void()>> wake;
  {
    std::lock_guard<std::mutex> lock(mu_);
    closed_ = true;
    for (Stream* s : streams_)
      if (auto resume = EndLocked(s, "stopping")) wake.push_back(std::move(resume));
  }
  for (auto& resume : wake) resume();
}

size_t NoticeHub::Size() {
  std::lock_guard<std::mutex> lock(mu_);
  return streams_.size();
}

void NoticeHub::Tick() {
  using Clock = std::chrono::steady_clock;
  auto next_heartbeat = Clock::now() + limits_.heartbeat;
  std::unique_lock<std::mutex> lock(mu_);
  while (!wake_.wait_for(lock, std::min(limits_.check, limits_.heartbeat),
                         [this] { return stopping_; })) {
    // The sessions are asked without the lock: the session store has its own.
    std::map<std::string, bool> tokens;
    for (const Stream* s : streams_)
      if (!s->ended_) tokens.emplace(s->token_, true);
    lock.unlock();
    for (auto& t : tokens) t.second = alive_(t.first);
    lock.lock();
    const bool beat = Clock::now() >= next_heartbeat;
    if (beat) next_heartbeat = Clock::now() + limits_.heartbeat;
    std::vector<std::function<void()>> wake;
    for (Stream* s : streams_) {
      auto t = tokens.find(s->token_);
      if (t != tokens.end() && !t->second) {
        if (auto resume = EndLocked(s, "session")) wake.push_back(std::move(resume));
      } else if (beat) {
        s->heartbeat_ = true;
      }
    }
    for (auto& resume : TakeWakeable()) wake.push_back(std::move(resume));
    lock.unlock();
    for (auto& resume : wake) resume();
    lock.lock();
  }
}

}  // namespace tavo_server
