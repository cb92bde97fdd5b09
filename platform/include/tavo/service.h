// Service reload hooks.
//
// TLIBServiceTypeReload(type) runs every executable regular file in
// ROOT/etc/tavo/reload.d, in name order, with the service type as its only
// argument, in a minimal environment: PATH, LANG=C and TAVO_ROOT, the root.
// A hook runs with the service's rights, so it must be trusted: a regular
// file (not a symbolic link), owned by root or by the service's user and
// writable by its owner alone, in a folder of the same kind; any other entry
// is logged (LOG_WARNING) and not run. Each hook gets at most
// TAVO_HOOK_TIMEOUT_MS (environment, default 5000 ms) and is then killed with
// its process group (a hook runs in a process group of its own). A failing,
// killed or slow hook is logged to syslog at LOG_WARNING and never makes the
// call fail. Names starting with "." are skipped. A hook reads /dev/null as
// its standard input, writes its standard output to the caller's standard
// error, and inherits no other descriptor.
// Service type 8 means "account data changed".
//
// Thread-safety: may be called from any thread; hooks of concurrent calls may
// run at the same time.
#ifndef TAVO_SERVICE_H_
#define TAVO_SERVICE_H_

extern "C" {

// Returns the number of hooks that were started, whatever their outcome (0
// when there are none or the folder is absent), -1 (TAVO_ERR_IO) only when the
// hook folder exists but cannot be read.
int TLIBServiceTypeReload(int type);

}  // extern "C"

#endif  // TAVO_SERVICE_H_
