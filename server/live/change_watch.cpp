#include "live/change_watch.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace tavo_server {
namespace {

using Clock = std::chrono::steady_clock;

// Files written in place (reported when the writer closes them) or renamed
// into place. Readers open these files read-only: reading reports nothing.
constexpr uint32_t kFileEvents = IN_CLOSE_WRITE | IN_MOVED_TO;
// SQLite writes its files in place and keeps them open, but it opens them
// read-write for reading too, and creates and removes the -wal as readers
// come and go: only writes count, or each reload of the log would report a
// change of its own.
constexpr uint32_t kLogEvents = IN_MODIFY;

bool Named(const inotify_event& e, const char* name) {
  return e.len > 0 && strcmp(e.name, name) == 0;
}

}  // namespace

ChangeWatch::ChangeWatch(std::string root, Notify notify, Timing timing)
    : root_(std::move(root)), notify_(std::move(notify)), timing_(timing) {}

ChangeWatch::~ChangeWatch() {
  if (thread_.joinable()) {
    const char c = 0;
    if (write(stop_[1], &c, 1) < 0) {
      // The pipe is ours and empty: this cannot fail short of a closed end.
    }
    thread_.join();
  }
  for (int fd : {inotify_, stop_[0], stop_[1]})
    if (fd >= 0) close(fd);
}

Status ChangeWatch::Start() {
  inotify_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (inotify_ < 0) return Status::Error(std::string("inotify: ") + strerror(errno));
  if (pipe2(stop_, O_CLOEXEC) != 0) return Status::Error(std::string("pipe: ") + strerror(errno));
  etc_ = inotify_add_watch(inotify_, (root_ + "/etc").c_str(), kFileEvents);
  if (etc_ < 0) return Status::Error("cannot watch " + root_ + "/etc: " + strerror(errno));
  tavo_ = inotify_add_watch(inotify_, (root_ + "/etc/tavo").c_str(), kFileEvents);
  log_ = inotify_add_watch(inotify_, (root_ + "/var/lib/tavo").c_str(), kLogEvents);
  thread_ = std::thread([this] { Run(); });
  return Status::OK();
}

void ChangeWatch::Run() {
  alignas(inotify_event) char buf[8192];
  bool groups = false, events = false;
  Clock::time_point due{}, last{};
  for (;;) {
    int timeout = -1;
    if (groups || events) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(due - Clock::now());
      timeout = static_cast<int>(std::max<int64_t>(0, left.count()));
    }
    pollfd fds[2] = {{inotify_, POLLIN, 0}, {stop_[0], POLLIN, 0}};
    const int n = poll(fds, 2, timeout);
    if (n < 0 && errno != EINTR) return;
    if (n > 0 && fds[1].revents != 0) return;
    const bool was_pending = groups || events;
    if (n > 0 && fds[0].revents != 0) {
      ssize_t len;
      while ((len = read(inotify_, buf, sizeof(buf))) > 0) {
        for (char* p = buf; p < buf + len;) {
          const inotify_event& e = *reinterpret_cast<const inotify_event*>(p);
          p += sizeof(inotify_event) + e.len;
          if (e.mask & IN_Q_OVERFLOW) {
            groups = events = true;
          } else if (e.wd == etc_) {
            if (Named(e, "group") || Named(e, "gshadow")) groups = true;
          } else if (e.wd == tavo_) {
            if (Named(e, "group_desc")) groups = true;
          } else if (e.wd == log_) {
            if (Named(e, "events.db") || Named(e, "events.db-wal")) events = true;
          }
        }
      }
    }
    const auto now = Clock::now();
    if (!was_pending && (groups || events))
      due = std::max(now + timing_.settle, last + timing_.interval);
    if ((groups || events) && now >= due) {
      notify_(groups, events);
      groups = events = false;
      last = Clock::now();
    }
  }
}

}  // namespace tavo_server
