#include "http/worker_pool.h"

#include <pthread.h>
#include <signal.h>

namespace tavo_server {

WorkerPool::WorkerPool(int threads, size_t queue_limit) : queue_limit_(queue_limit) {
  const int n = threads < 1 ? 1 : threads;
  for (int i = 0; i < n; ++i) slots_.push_back(std::make_unique<Slot>());
  for (int i = 0; i < n; ++i) threads_.emplace_back([this, i] { Work(slots_[i].get()); });
}

WorkerPool::~WorkerPool() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    stopping_ = true;
    for (auto& slot : slots_) slot->woken = true;
  }
  for (auto& slot : slots_) slot->wake.notify_all();
  for (auto& t : threads_) t.join();
}

bool WorkerPool::TrySubmit(std::function<void()> job) {
  Slot* wake = nullptr;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (stopping_ || queue_.size() >= queue_limit_) return false;
    queue_.push_back(std::move(job));
    if (!idle_.empty()) {
      wake = idle_.back();
      idle_.pop_back();
      wake->woken = true;
    }
  }
  // Slots live as long as the pool, so this is safe outside the lock.
  if (wake) wake->wake.notify_one();
  return true;
}

void WorkerPool::Work(Slot* me) {
  for (;;) {
    std::function<void()> job;
    {
      std::unique_lock<std::mutex> lock(mu_);
      while (!stopping_ && queue_.empty()) {
        // Another thread may take the job this one was woken for; it then
        // goes idle again, on top.
        me->woken = false;
        idle_.push_back(me);
        me->wake.wait(lock, [me] { return me->woken; });
      }
      if (queue_.empty()) return;  // stopping, nothing left to run
      job = std::move(queue_.front());
      queue_.pop_front();
    }
    job();
  }
}

}  // namespace tavo_server
