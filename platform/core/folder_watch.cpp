#include "core/folder_watch.h"

#include <errno.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace tavo {
namespace internal {
namespace {

constexpr uint32_t kFolderEvents = IN_CREATE | IN_DELETE | IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM |
                                   IN_MOVED_TO | IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF |
                                   IN_ONLYDIR;

struct Watch {
  int wd = -1;                        // -1: not watched now (added again on the next ask)
  unsigned long long epoch = 0;       // moved by every event
  unsigned long long data_epoch = 0;  // not moved by events on lock and journal files
};

struct State {
  std::mutex mu;
  int fd = -1;                  // the inotify instance; -1 before the first ask or when unavailable
  bool failed = false;          // inotify_init1 failed: counts are unknown for good
  unsigned long long tick = 0;  // the last count handed out; counts are never reused
  // Tickets of the askers, and the last ticket drawn before the latest
  // completed read of the queue began: an asker whose ticket is not above
  // it needs no read of its own (that read saw every event queued before
  // the asker came). Many threads asking at once then read the queue once.
  std::atomic<unsigned long long> tickets{0};
  unsigned long long read_upto = 0;  // guarded by mu
  std::map<std::string, Watch, std::less<>> folders;
  std::unordered_multimap<int, std::string> by_wd;  // one inode may be watched under two paths

  void Reset() {  // forget every watch; counts already handed out never match again
    if (fd >= 0) close(fd);
    fd = -1;
    folders.clear();
    by_wd.clear();
  }
};

State& Get() {
  static State* state = [] {
    auto* s = new State;  // never destroyed: threads may ask during exit
    // A forked child shares the parent's event queue: reading it would take
    // the parent's events. The child starts without watches.
    pthread_atfork([] { Get().mu.lock(); }, [] { Get().mu.unlock(); },
                   [] {
                     State& c = Get();
                     c.Reset();
                     c.mu.unlock();
                   });
    return s;
  }();
  return *state;
}

// Moves the counts of every folder that `wd` watches (only the one of all
// events for an event on a lock or journal file); a watch that ended, or a
// folder that moved, is watched again on its path at the next ask.
void Bump(State& s, int wd, bool ended, bool quiet) {
  auto range = s.by_wd.equal_range(wd);
  for (auto it = range.first; it != range.second; ++it) {
    auto f = s.folders.find(it->second);
    if (f == s.folders.end()) continue;
    f->second.epoch = ++s.tick;
    if (!quiet || ended) f->second.data_epoch = f->second.epoch;
    if (ended) f->second.wd = -1;
  }
  if (ended) {
    s.by_wd.erase(wd);
    inotify_rm_watch(s.fd, wd);  // harmless when the kernel already removed it
  }
}

// Reads every pending event. False when the queue cannot be read (then
// every watch is dropped).
bool Drain(State& s) {
  alignas(struct inotify_event) char buf[8192];
  for (;;) {
    ssize_t n = read(s.fd, buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN) return true;
      s.Reset();
      return false;
    }
    if (n == 0) return true;
    for (char* p = buf; p < buf + n;) {
      const auto* e = reinterpret_cast<const struct inotify_event*>(p);
      if (e->mask & IN_Q_OVERFLOW) {
        for (auto& f : s.folders) f.second.epoch = f.second.data_epoch = ++s.tick;
      } else {
        Bump(s, e->wd, (e->mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) != 0,
             e->len > 0 && IsLockOrJournalName(e->name));
      }
      p += sizeof(struct inotify_event) + e->len;
    }
  }
}

}  // namespace

bool IsLockOrJournalName(std::string_view name) {
  auto ends_with = [&](std::string_view tail) {
    return name.size() >= tail.size() && name.substr(name.size() - tail.size()) == tail;
  };
  if (ends_with(".lock")) return true;
  if (name == ".tavo-change" || name.substr(0, 13) == ".tavo-change.") return true;
  if (!name.empty() && name[0] == '.' && name.find(".tavolock.") != std::string_view::npos)
    return true;
  // The account tools' lock candidates, NAME.PID.
  const size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0 || dot + 1 == name.size()) return false;
  if (name.substr(0, dot).find('.') != std::string_view::npos) return false;
  for (size_t i = dot + 1; i < name.size(); ++i)
    if (name[i] < '0' || name[i] > '9') return false;
  return true;
}

void ForgoFolderWatch() {
  State& s = Get();
  std::lock_guard<std::mutex> lock(s.mu);
  s.Reset();
  s.failed = true;
}

unsigned long long FolderEpoch(std::string_view dir, bool read_events, bool lock_files) {
  State& s = Get();
  const unsigned long long ticket = s.tickets.fetch_add(1) + 1;
  std::lock_guard<std::mutex> lock(s.mu);
  if (s.read_upto >= ticket) read_events = false;
  if (s.failed) return 0;
  if (s.fd < 0) {
    s.fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (s.fd < 0) {
      s.failed = true;
      return 0;
    }
  }
  if (read_events) {
    const unsigned long long upto = s.tickets.load();
    if (!Drain(s)) return 0;
    s.read_upto = upto;
  }
  auto it = s.folders.find(dir);
  if (it != s.folders.end() && it->second.wd >= 0)
    return lock_files ? it->second.epoch : it->second.data_epoch;
  if (it == s.folders.end() && s.folders.size() >= static_cast<size_t>(kMaxWatchedFolders)) {
    s.Reset();  // roots come and go (tests): start over rather than grow
    s.fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (s.fd < 0) {
      s.failed = true;
      return 0;
    }
  }
  const std::string path(dir);
  const int wd = inotify_add_watch(s.fd, path.c_str(), kFolderEvents);
  if (wd < 0) return 0;  // missing folder, or the watch limit: look at the files
  Watch& w = s.folders[path];
  w.wd = wd;
  w.epoch = w.data_epoch = ++s.tick;
  s.by_wd.emplace(wd, path);
  return w.epoch;
}

}  // namespace internal
}  // namespace tavo
