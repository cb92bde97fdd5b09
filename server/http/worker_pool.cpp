#include "worker_pool.h"

#include <pthread.h>
#include <signal.h>

namespace tavo_server {

WorkerPool::WorkerPool(int threads, size_t queue_limit) : queue_limit_(queue_limit) {
  for (int i = 0; i < (threads < 1 ? 1 : threads); ++i) threads_.emplace_back([this] { Work(); });
}

WorkerPool::~WorkerPool() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    stopping_ = true;
  }
  wake_.notify_all();
  for (auto& t : threads_) t.join();
}

bool WorkerPool::TrySubmit(std::function<void()> job) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (stopping_ || queue_.size() >= queue_limit_) return false;
    queue_.push_back(std::move(job));
  }
  wake_.notify_one();
  return true;
}

void WorkerPool::Work() {
  for (;;) {
    std::function<void()> job;
    {
      std::unique_lock<std::mutex> lock(mu_);
      wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
      if (queue_.empty()) return;
      job = std::move(queue_.front());
      queue_.pop_front();
    }
    job();
  }
}

}  // namespace tavo_server
