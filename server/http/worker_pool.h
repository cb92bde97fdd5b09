// Executor and WorkerPool: where blocking work (module calls, logins) runs, so
// that the event threads never wait for locks, fsync or password hashing.
//
// Executor is the seam: the HTTP core only needs TrySubmit, so another
// implementation could hand the job to a separate, less privileged process.
// WorkerPool runs jobs on a fixed set of threads from a bounded queue; when
// the queue is full, TrySubmit refuses at once instead of waiting. A job goes
// to the thread that became idle last, whose caches are still warm, rather
// than to the one idle longest.
//
// Ownership: jobs are moved into the pool and destroyed after they ran.
// Thread-safety: TrySubmit may be called from any thread. The destructor
// finishes the queued jobs, then joins the threads.
#ifndef TAVO_SERVER_WORKER_POOL_H_
#define TAVO_SERVER_WORKER_POOL_H_

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace tavo_server {

class Executor {
 public:
  virtual ~Executor() = default;
  // Queues `job`; false (and `job` is dropped) when there is no room.
  virtual bool TrySubmit(std::function<void()> job) = 0;
};

class WorkerPool : public Executor {
 public:
  // `threads` >= 1 workers; at most `queue_limit` jobs wait besides the ones
  // running.
  WorkerPool(int threads, size_t queue_limit);
  ~WorkerPool() override;
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  bool TrySubmit(std::function<void()> job) override;

 private:
  // One per thread, for the pool's whole life; guarded by mu_.
  struct Slot {
    std::condition_variable wake;
    bool woken = false;  // handed a job (or told to stop) since it went idle
  };
  void Work(Slot* me);

  const size_t queue_limit_;
  std::mutex mu_;
  std::deque<std::function<void()>> queue_;
  std::vector<std::unique_ptr<Slot>> slots_;
  std::vector<Slot*> idle_;  // waiting threads, the most recently idle last
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_WORKER_POOL_H_
