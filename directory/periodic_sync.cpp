#include "directory/periodic_sync.h"

#include <cstdlib>

#include "directory/dir_files.h"
#include "directory/group_sync.h"
#include "tavo/conf.h"

namespace tavo_dir {

PeriodicSync::PeriodicSync(int interval_seconds) : interval_(interval_seconds) {
  if (interval_ > 0) thread_ = std::thread([this] { Run(); });
}

PeriodicSync::~PeriodicSync() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    stop_ = true;
  }
  cv_.notify_all();
  if (thread_.joinable()) thread_.join();
}

int PeriodicSync::ConfiguredInterval() {
  TavoConf conf;
  const char* v = conf.Def("directory_sync_interval", "900");
  char* end = nullptr;
  long n = std::strtol(v, &end, 10);
  if (end == v || *end != '\0' || n < 0) return 900;
  return n > 7 * 24 * 3600 ? 7 * 24 * 3600 : static_cast<int>(n);
}

void PeriodicSync::Run() {
  std::unique_lock<std::mutex> lock(mu_);
  while (!stop_) {
    lock.unlock();
    for (Kind kind : {Kind::kLdap, Kind::kDomain}) {
      Binding b;
      std::string error;
      if (ReadBinding(kind, &b, &error)) SyncDirectory(kind);
    }
    lock.lock();
    cv_.wait_for(lock, std::chrono::seconds(interval_), [this] { return stop_; });
  }
}

}  // namespace tavo_dir
