// The server's own API TAVO.Core.Directory version 1, for the admin page:
//   "status": {"ldap": {...}, "domain": {...}} as tavo_dir::StatusJson gives
//     them (binding, server that last answered, last sync, last error).
//   "sync": params {"type": "ldap" | "domain"} (absent: every directory in
//     use) synchronises now and answers {"results": [{"type", "ok", "groups",
//     "skipped", "duration_ms", "server", "error"}], "status": {...}}. A sync
//     that fails is still answered with success: its error is in its result.
//     A type other than those two is answered with 3201.
// Only administrators log in to the server, so only they reach "sync".
//
// Thread-safety: the entry functions may run on any number of threads; syncs
// of one directory are serialised by the sync lock (a second one reports
// "already running").
#ifndef TAVO_SERVER_DIRECTORY_API_H_
#define TAVO_SERVER_DIRECTORY_API_H_

#include "api/module_loader.h"
#include "api/status.h"

namespace tavo_server {

constexpr const char kDirectoryApi[] = "TAVO.Core.Directory";

Status RegisterDirectoryApi(ModuleSet* modules);

}  // namespace tavo_server

#endif  // TAVO_SERVER_DIRECTORY_API_H_
