// ChangeWatch: notices that the groups or the event log of a root changed,
// whoever changed them: this server, `tavo call` in another process, the
// system's account tools (groupadd -P, gpasswd -Q) or a hand edit.
//
// A thread of its own reads inotify events of three folders of the root:
//   etc/            group and gshadow written or renamed into place
//   etc/tavo/       group_desc written or renamed into place
//   var/lib/tavo/   events.db or its -wal written to (a new event-log entry)
// Directory watches need only read access to the folders (all 0755), not to
// the files, so an unprivileged front sees changes to 0600 files it cannot
// open.
//
// Bursts are coalesced: the first change is reported `settle` after it, with
// every change seen meanwhile, and two reports are at least `interval` apart.
// Changes are never dropped, only merged into the next report. A full kernel
// queue reports both kinds.
//
// Ownership: owns its inotify descriptor, its wake-up pipe and its thread.
// Thread-safety: `notify` runs on the watch's thread; construction and
// destruction from one thread.
// Errors: Start fails when inotify or etc/ cannot be watched; a missing
// etc/tavo/ or var/lib/tavo/ is skipped (nothing of that kind is reported).
#ifndef TAVO_SERVER_LIVE_CHANGE_WATCH_H_
#define TAVO_SERVER_LIVE_CHANGE_WATCH_H_

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "api/status.h"

namespace tavo_server {

class ChangeWatch {
 public:
  struct Timing {
    std::chrono::milliseconds settle{100};
    std::chrono::milliseconds interval{350};
  };
  using Notify = std::function<void(bool groups, bool events)>;

  ChangeWatch(std::string root, Notify notify, Timing timing);
  ~ChangeWatch();
  ChangeWatch(const ChangeWatch&) = delete;
  ChangeWatch& operator=(const ChangeWatch&) = delete;

  // Adds the watches and starts the thread. Once.
  Status Start();

 private:
  void Run();

  const std::string root_;
  const Notify notify_;
  const Timing timing_;
  int inotify_ = -1;
  int stop_[2] = {-1, -1};
  int etc_ = -1, tavo_ = -1, log_ = -1;  // watch descriptors
  std::thread thread_;
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_LIVE_CHANGE_WATCH_H_
