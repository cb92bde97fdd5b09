// PeriodicSync: a thread that synchronises every bound or joined directory at
// start and then every `interval_seconds`, for `tavo serve`.
//
// A directory that is neither bound nor joined is skipped quietly; a failed
// sync is recorded by SyncDirectory (state and event log) and retried at the
// next interval. At start it also clears a domain pid file left by a process
// that is gone (SyncDirectory does that as its first step).
//
// Ownership: owns its thread; the destructor stops it, waiting for a sync
// under way to finish (each is bounded by the binding's timeouts).
// Thread-safety: construct and destroy on one thread.
#ifndef TAVO_DIRECTORY_PERIODIC_SYNC_H_
#define TAVO_DIRECTORY_PERIODIC_SYNC_H_

#include <condition_variable>
#include <mutex>
#include <thread>

namespace tavo_dir {

class PeriodicSync {
 public:
  // interval_seconds <= 0: no periodic sync (the thread is not started).
  explicit PeriodicSync(int interval_seconds);
  ~PeriodicSync();
  PeriodicSync(const PeriodicSync&) = delete;
  PeriodicSync& operator=(const PeriodicSync&) = delete;

  // The interval from ROOT/etc/tavo/tavo.conf, key directory_sync_interval
  // (seconds; default 900; 0 turns the periodic sync off).
  static int ConfiguredInterval();

 private:
  void Run();

  int interval_;
  std::mutex mu_;
  std::condition_variable cv_;
  bool stop_ = false;
  std::thread thread_;
};

}  // namespace tavo_dir

#endif  // TAVO_DIRECTORY_PERIODIC_SYNC_H_
