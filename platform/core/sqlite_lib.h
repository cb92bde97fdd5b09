// SQLite, loaded at its first use instead of at program start.
//
// Only the event log uses SQLite. A program that never writes or reads it (a
// one-off `tavo call` that lists or reads groups) then does not pay for
// mapping and relocating the library when it starts, which is a noticeable
// share of such a short process. The library is the system's own
// libsqlite3.so.0, the one the program would otherwise be linked against.
//
// Ownership: the library stays loaded until the process ends.
// Thread-safety: Sqlite() may be called from any thread; the first call loads.
// Errors: Sqlite() returns null when the library or one of its functions
// cannot be found (logged to syslog once); it does not touch the platform
// error state.
#ifndef TAVO_PLATFORM_SQLITE_LIB_H_
#define TAVO_PLATFORM_SQLITE_LIB_H_

#include <sqlite3.h>

namespace tavo {
namespace internal {

// The SQLite functions the platform calls, named without their "sqlite3_"
// prefix.
struct SqliteCalls {
  decltype(&::sqlite3_open_v2) open_v2;
  decltype(&::sqlite3_close_v2) close_v2;
  decltype(&::sqlite3_busy_timeout) busy_timeout;
  decltype(&::sqlite3_exec) exec;
  decltype(&::sqlite3_errmsg) errmsg;
  decltype(&::sqlite3_wal_hook) wal_hook;
  decltype(&::sqlite3_wal_checkpoint_v2) wal_checkpoint_v2;
  decltype(&::sqlite3_prepare_v2) prepare_v2;
  decltype(&::sqlite3_step) step;
  decltype(&::sqlite3_finalize) finalize;
  decltype(&::sqlite3_bind_int) bind_int;
  decltype(&::sqlite3_bind_int64) bind_int64;
  decltype(&::sqlite3_bind_text) bind_text;
  decltype(&::sqlite3_column_int) column_int;
  decltype(&::sqlite3_column_int64) column_int64;
  decltype(&::sqlite3_column_text) column_text;
};

const SqliteCalls* Sqlite();

}  // namespace internal
}  // namespace tavo

#endif  // TAVO_PLATFORM_SQLITE_LIB_H_
