// Loading SQLite on first use (see sqlite_lib.h).
#include "core/sqlite_lib.h"

#include <dlfcn.h>
#include <syslog.h>

#include <mutex>

namespace tavo {
namespace internal {
namespace {

// The soname a program linked with -lsqlite3 records.
constexpr const char* kLibrary = "libsqlite3.so.0";

template <typename Fn>
bool Find(void* lib, const char* name, Fn* out) {
  *out = reinterpret_cast<Fn>(dlsym(lib, name));
  if (*out != nullptr) return true;
  syslog(LOG_ERR, "event log: %s has no %s", kLibrary, name);
  return false;
}

bool Load(SqliteCalls* c) {
  void* lib = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
  if (lib == nullptr) {
    const char* why = dlerror();
    syslog(LOG_ERR, "event log: cannot load %s: %s", kLibrary, why ? why : "?");
    return false;
  }
  return Find(lib, "sqlite3_open_v2", &c->open_v2) && Find(lib, "sqlite3_close_v2", &c->close_v2) &&
         Find(lib, "sqlite3_busy_timeout", &c->busy_timeout) &&
         Find(lib, "sqlite3_exec", &c->exec) && Find(lib, "sqlite3_errmsg", &c->errmsg) &&
         Find(lib, "sqlite3_wal_hook", &c->wal_hook) &&
         Find(lib, "sqlite3_wal_checkpoint_v2", &c->wal_checkpoint_v2) &&
         Find(lib, "sqlite3_prepare_v2", &c->prepare_v2) && Find(lib, "sqlite3_step", &c->step) &&
         Find(lib, "sqlite3_finalize", &c->finalize) &&
         Find(lib, "sqlite3_bind_int", &c->bind_int) &&
         Find(lib, "sqlite3_bind_int64", &c->bind_int64) &&
         Find(lib, "sqlite3_bind_text", &c->bind_text) &&
         Find(lib, "sqlite3_column_int", &c->column_int) &&
         Find(lib, "sqlite3_column_int64", &c->column_int64) &&
         Find(lib, "sqlite3_column_text", &c->column_text);
  // The library stays loaded even when a function is missing: dlclose of a
  // library that may have started threads or registered handlers is unsafe.
}

}  // namespace

const SqliteCalls* Sqlite() {
  static std::once_flag once;
  static SqliteCalls calls;
  static bool loaded = false;
  std::call_once(once, [] { loaded = Load(&calls); });
  return loaded ? &calls : nullptr;
}

}  // namespace internal
}  // namespace tavo
