// The server's own API, TAVO.Core.EventLog version 1, method "list": the event
// log newest first, for the admin page's recent changes and `tavo log`.
//
// Parameters: "offset" (default 0, >= 0) and "limit" (default 50, -1 for all,
// otherwise 0..1000), as numbers or decimal text; optional filters "group",
// "user", "account" (names, ASCII letters compared ignoring case), "since"
// and "until" (UTC "2026-11-22" or "2026-11-22T01:40:00Z"; since inclusive,
// until exclusive), each a string, where "" means no filter (see
// tavo::EventLogFilter). Anything else is answered with 3201. Data: {"total": N, "entries": [...]}
// as tavo::EventLogList gives it; a log that cannot be read is answered with 3299.
//
// Thread-safety: the entry function may run on any number of threads.
#ifndef TAVO_SERVER_EVENTLOG_API_H_
#define TAVO_SERVER_EVENTLOG_API_H_

#include "api/module_loader.h"
#include "api/status.h"

namespace tavo_server {

constexpr const char kEventLogApi[] = "TAVO.Core.EventLog";

// Adds the event-log API to `modules`.
Status RegisterEventLogApi(ModuleSet* modules);

}  // namespace tavo_server

#endif  // TAVO_SERVER_EVENTLOG_API_H_
