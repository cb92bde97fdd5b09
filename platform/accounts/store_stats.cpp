#include <atomic>
#include <chrono>

#include "accounts/store_stats_internal.h"

namespace tavo {
namespace acct {
namespace {

std::atomic<uint64_t> g_commits{0}, g_failed{0}, g_files{0}, g_fsyncs{0}, g_fsync_ns{0};

int Timed(int fd, int (*sync)(int)) {
  const auto start = std::chrono::steady_clock::now();
  const int rc = sync(fd);
  const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::steady_clock::now() - start);
  g_fsyncs.fetch_add(1, std::memory_order_relaxed);
  g_fsync_ns.fetch_add(static_cast<uint64_t>(ns.count()), std::memory_order_relaxed);
  return rc;
}

}  // namespace

int TimedFsync(int fd) { return Timed(fd, fsync); }
int TimedFdatasync(int fd) { return Timed(fd, fdatasync); }

void CountCommit(bool whole, size_t files) {
  (whole ? g_commits : g_failed).fetch_add(1, std::memory_order_relaxed);
  if (whole) g_files.fetch_add(files, std::memory_order_relaxed);
}

}  // namespace acct

StoreStats GetStoreStats() {
  StoreStats s;
  s.commits = acct::g_commits.load(std::memory_order_relaxed);
  s.failed_commits = acct::g_failed.load(std::memory_order_relaxed);
  s.files_written = acct::g_files.load(std::memory_order_relaxed);
  s.fsyncs = acct::g_fsyncs.load(std::memory_order_relaxed);
  s.fsync_ns = acct::g_fsync_ns.load(std::memory_order_relaxed);
  return s;
}

}  // namespace tavo
