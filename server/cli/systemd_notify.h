// Talking to systemd when it started the server: readiness and stopping
// (Type=notify), the watchdog (WatchdogSec=), and socket activation
// (tavo.socket). Every call does nothing when the process was not started by
// systemd, so the server runs the same by hand.
//
// Thread-safety: the notify calls may be made from any thread.
#ifndef TAVO_SERVER_SYSTEMD_NOTIFY_H_
#define TAVO_SERVER_SYSTEMD_NOTIFY_H_

#include <cstdint>
#include <string>

namespace tavo_server {

// READY=1 with a STATUS= line: call once the modules are loaded and the
// socket listens.
void NotifyReady(const std::string& status);
// STOPPING=1: call when a stop begins.
void NotifyStopping();
// WATCHDOG=1: call from the loop that serves, at least every
// WatchdogInterval()/2.
void NotifyWatchdog();
// The watchdog interval systemd asked for, in microseconds, or 0 for none.
// The first call decides: make it in the process that systemd started, before
// a split-off child (which systemd does not name as watched) asks.
uint64_t WatchdogIntervalUsec();

// The listening TCP socket systemd passed (tavo.socket), or -1 when none was
// passed. Fails (-2, with *error set) when several sockets, or one that is
// not a listening stream socket, were passed.
int ActivatedListenSocket(std::string* error);

// True when standard error is the journal's stream (systemd names it in
// JOURNAL_STREAM as "DEVICE:INODE"): what is written there reaches the
// journal already, so log lines sent to the system log must not be copied
// to it too.
bool StandardErrorIsJournal();

}  // namespace tavo_server

#endif  // TAVO_SERVER_SYSTEMD_NOTIFY_H_
