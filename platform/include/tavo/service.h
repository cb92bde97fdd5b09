// Service reload hooks.
//
// TLIBServiceTypeReload(type) runs every executable regular file in
// ROOT/etc/tavo/reload.d, in name order, with the service type as its only
// argument and TAVO_ROOT set to the root. Each hook gets at most
// TAVO_HOOK_TIMEOUT_MS (environment, default 5000 ms) and is then killed. A
// failing or slow hook is logged to syslog and never makes the call fail.
// Service type 8 means "account data changed".
//
// Thread-safety: may be called from any thread; hooks of concurrent calls may
// run at the same time.
#ifndef TAVO_SERVICE_H_
#define TAVO_SERVICE_H_

extern "C" {

// Returns the number of hooks that ran (0 when there are none), -1 only when
// the hook folder exists but cannot be read.
int TLIBServiceTypeReload(int type);

}  // extern "C"

#endif  // TAVO_SERVICE_H_
