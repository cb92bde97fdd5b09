#include "cli/systemd_notify.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>

#include <cstdio>
#include <cstdlib>

namespace tavo_server {

void NotifyReady(const std::string& status) { sd_notifyf(0, "READY=1\nSTATUS=%s", status.c_str()); }

void NotifyStopping() { sd_notify(0, "STOPPING=1"); }

void NotifyWatchdog() { sd_notify(0, "WATCHDOG=1"); }

uint64_t WatchdogIntervalUsec() {
  // systemd names the process it watches (WATCHDOG_PID): the answer of the
  // first call, made in that process, holds for the children it forks.
  static const uint64_t interval = [] {
    uint64_t usec = 0;
    return sd_watchdog_enabled(0, &usec) > 0 ? usec : 0;
  }();
  return interval;
}

int ActivatedListenSocket(std::string* error) {
  int n = sd_listen_fds(1);  // also clears LISTEN_FDS for child processes
  if (n <= 0) return -1;
  if (n > 1) {
    *error = "systemd passed " + std::to_string(n) + " sockets; tavo.socket should listen on one";
    return -2;
  }
  int fd = SD_LISTEN_FDS_START;
  if (sd_is_socket(fd, AF_UNSPEC, SOCK_STREAM, 1) <= 0) {
    *error = "the socket systemd passed is not a listening stream socket";
    return -2;
  }
  return fd;
}

bool StandardErrorIsJournal() {
  const char* stream = getenv("JOURNAL_STREAM");
  unsigned long long dev = 0, ino = 0;
  if (stream == nullptr || sscanf(stream, "%llu:%llu", &dev, &ino) != 2) return false;
  struct stat st;
  return fstat(2, &st) == 0 && st.st_dev == dev && st.st_ino == ino;
}

}  // namespace tavo_server
