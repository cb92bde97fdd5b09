// The state of each directory's synchronisation, kept in
// ROOT/var/lib/tavo/directory/KIND.status ("key = value" lines, replaced
// whole): the server that last answered, the last good sync (time, number of
// groups, groups skipped, duration) and the last error (time, message).
//
// Thread-safety: reentrant; concurrent writers are serialised by the sync lock
// (group_sync.h). Errors: a missing or unreadable file reads as a fresh state.
#ifndef TAVO_DIRECTORY_DIR_STATUS_H_
#define TAVO_DIRECTORY_DIR_STATUS_H_

#include <json/value.h>

#include <cstdint>
#include <string>

#include "directory/dir_files.h"

namespace tavo_dir {

struct SyncState {
  std::string server;           // URI that last answered, "" if none yet
  int64_t last_sync = 0;        // seconds since the epoch of the last good sync, 0 if none
  int64_t groups = 0;           // groups written by it
  int64_t skipped = 0;          // entries it could not store (bad name, no gid, duplicate)
  int64_t duration_ms = 0;      // how long it took
  int64_t last_error_time = 0;  // 0 when the last attempt succeeded
  std::string last_error;
};

SyncState ReadSyncState(Kind kind);
bool WriteSyncState(Kind kind, const SyncState& state, std::string* error);
bool RemoveSyncState(Kind kind, std::string* error);

// {"bound"|"joined": bool, "name", "uri", "server", "last_sync": {"time" (ISO
// 8601 UTC), "groups", "skipped", "duration_ms"} or null, "last_error":
// {"time", "message"} or null, "rebuilding": pid or null (domain only)}.
// Never holds a secret.
Json::Value StatusJson(Kind kind);

// "2026-11-23T01:02:03Z"
std::string IsoTime(int64_t t);

}  // namespace tavo_dir

#endif  // TAVO_DIRECTORY_DIR_STATUS_H_
