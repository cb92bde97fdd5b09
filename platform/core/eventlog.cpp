// The event log in SQLite: writing entries and listing them newest first.
//
// The process keeps one connection, guarded by a mutex, to the database of
// the current root; it is reopened when the root changes, when the database
// file was replaced, and in a child after fork (a connection never crosses a
// fork). WAL mode and a busy timeout let several processes write together.
#include "tavo/eventlog.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>
#include <vector>

#include "accounts/snapshot/pin.h"
#include "core/os_util.h"
#include "core/sqlite_lib.h"
#include "tavo/account.h"
#include "tavo/error.h"
#include "tavo/root.h"

namespace {

constexpr int kBusyTimeoutMs = 10000;
constexpr const char* kDbPath = "/var/lib/tavo/events.db";

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS events ("
    " id INTEGER PRIMARY KEY AUTOINCREMENT,"
    " time INTEGER NOT NULL,"  // seconds since the epoch, UTC
    " event INTEGER NOT NULL,"
    " category INTEGER NOT NULL,"
    " level INTEGER NOT NULL,"
    " arg1 TEXT NOT NULL, arg2 TEXT NOT NULL, arg3 TEXT NOT NULL, arg4 TEXT NOT NULL,"
    " account TEXT NOT NULL,"
    " message TEXT NOT NULL)";

// SQLite's functions. Loaded by Acquire before any other use: every call
// below is made on a connection or statement that Acquire's connection made.
const tavo::internal::SqliteCalls& Sq() { return *tavo::internal::Sqlite(); }

class Stmt {
 public:
  Stmt() = default;
  ~Stmt() { Sq().finalize(st_); }
  Stmt(const Stmt&) = delete;
  Stmt& operator=(const Stmt&) = delete;
  sqlite3_stmt* get() const { return st_; }
  sqlite3_stmt** out() { return &st_; }

 private:
  sqlite3_stmt* st_ = nullptr;
};

bool Fail(sqlite3* db, const char* what) {
  syslog(LOG_ERR, "event log: %s failed: %s", what, db ? Sq().errmsg(db) : "no database");
  TAVO_ERR_SET(TAVO_ERR_DB);
  return false;
}

// Runs SQL without results, retrying while another connection holds a lock
// that the busy handler does not wait for (such as a journal mode change).
bool Exec(sqlite3* db, const char* sql) {
  const long long deadline = tavo::internal::NowMillis() + kBusyTimeoutMs;
  for (;;) {
    int rc = Sq().exec(db, sql, nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK) return true;
    if ((rc & 0xFF) != SQLITE_BUSY && (rc & 0xFF) != SQLITE_LOCKED) return false;
    if (tavo::internal::NowMillis() >= deadline) return false;
    tavo::internal::SleepMillis(5);
  }
}

// Called after each commit with the pages the write-ahead log holds. Past
// kFoldPages the log is folded into the database and emptied. SQLite's own
// automatic checkpoint cannot be relied on here: a process that opens the
// database first reads the whole log and counts none of it as folded, so a
// run of short-lived processes (command-line calls, one entry each) would
// fold it all again at every call and never empty it, and every call would
// read more of it.
// The fold never waits: while another process reads or writes the log, it
// is left to a later commit (a request must not wait on a reader).
constexpr int kFoldPages = 64;
int FoldLog(void*, sqlite3* db, const char* schema, int pages) {
  if (pages >= kFoldPages) {
    Sq().busy_timeout(db, 0);
    Sq().wal_checkpoint_v2(db, schema, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    Sq().busy_timeout(db, kBusyTimeoutMs);
  }
  return SQLITE_OK;  // an entry is kept whether or not the log could be folded now
}

// The shared connection. Guarded by g_mu.
struct Connection {
  sqlite3* db = nullptr;
  std::string path;
  dev_t dev = 0;
  ino_t ino = 0;
  pid_t pid = 0;
};
std::mutex g_mu;
Connection g_conn;

void Drop() {
  // A connection opened by the parent process is abandoned, not closed:
  // closing it here could checkpoint and remove the WAL the parent uses.
  if (g_conn.db && g_conn.pid == getpid()) Sq().close_v2(g_conn.db);
  g_conn = Connection();
}

// Makes the database file when absent (`create`), and takes from it and from
// its WAL and shared-memory files any access of others: who changed what is
// for the service alone. SQLite gives the files it makes the database's own
// mode.
void Tighten(const std::string& path, bool create) {
  for (const char* suffix : {"", "-wal", "-shm"}) {
    const std::string file = path + suffix;
    const int make = create && !*suffix ? O_CREAT : 0;
    int fd =
        open(file.c_str(), O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | make, 0600);
    if (fd < 0) continue;
    struct stat st;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & 077) != 0 &&
        fchmod(fd, st.st_mode & 0700) != 0)
      syslog(LOG_WARNING, "event log: cannot restrict %s to its owner", file.c_str());
    close(fd);
  }
}

// Opens the database of the current root, or returns the open connection
// when it still belongs to this process and to the file now at the path.
// Creates folders, file and table when absent. Caller holds g_mu.
sqlite3* Acquire() {
  std::string path = tavo::TavoRootPath(kDbPath);
  struct stat st;
  bool present = stat(path.c_str(), &st) == 0;
  if (g_conn.db && g_conn.pid == getpid() && g_conn.path == path && present &&
      g_conn.dev == st.st_dev && g_conn.ino == st.st_ino) {
    return g_conn.db;
  }
  Drop();
  if (tavo::internal::Sqlite() == nullptr) {
    TAVO_ERR_SET(TAVO_ERR_DB);
    return nullptr;
  }
  if (!tavo::internal::MakeParentDirs(path, 0755)) {
    syslog(LOG_ERR, "event log: cannot create the folder of %s", path.c_str());
    TAVO_ERR_SET(TAVO_ERR_DB);
    return nullptr;
  }
  Tighten(path, true);
  sqlite3* db = nullptr;
  int rc = Sq().open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  if (rc == SQLITE_OK) {
    Sq().busy_timeout(db, kBusyTimeoutMs);
    if (!Exec(db, "PRAGMA journal_mode=WAL") || !Exec(db, "PRAGMA synchronous=FULL") ||
        !Exec(db, kSchema) || stat(path.c_str(), &st) != 0) {
      rc = SQLITE_ERROR;
    }
  }
  if (rc == SQLITE_OK) Sq().wal_hook(db, FoldLog, nullptr);
  if (rc != SQLITE_OK) {
    Fail(db, "opening the database");
    Sq().close_v2(db);
    return nullptr;
  }
  g_conn.db = db;
  g_conn.path = path;
  g_conn.dev = st.st_dev;
  g_conn.ino = st.st_ino;
  g_conn.pid = getpid();
  return db;
}

std::string IsoTime(long long seconds) {
  time_t t = static_cast<time_t>(seconds);
  struct tm tm;
  char buf[32] = "";
  if (gmtime_r(&t, &tm)) strftime(buf, sizeof(buf), "%Y-%m-%dT%H:%M:%SZ", &tm);
  return buf;
}

std::string Column(sqlite3_stmt* st, int i) {
  const unsigned char* text = Sq().column_text(st, i);
  return text ? reinterpret_cast<const char*>(text) : "";
}

// The WHERE clause of a filter, and its texts and times to bind in order.
struct Where {
  std::string sql;
  std::vector<std::string> texts;
  std::vector<long long> times;
};

// Group events are 0x118006xx (created, deleted, renamed, described) and
// 0x118008xx (members added, removed); a rename (0x11800602) names the new
// group in its second argument, a membership the user in its second.
Where MakeWhere(const tavo::EventLogFilter& f) {
  Where w;
  auto add = [&w](const char* clause) {
    w.sql += w.sql.empty() ? " WHERE " : " AND ";
    w.sql += clause;
  };
  if (!f.group.empty()) {
    add("((event >> 8) IN (0x118006, 0x118008) AND (arg1 = ? COLLATE NOCASE"
        " OR (event = 0x11800602 AND arg2 = ? COLLATE NOCASE)))");
    w.texts.push_back(f.group);
    w.texts.push_back(f.group);
  }
  if (!f.user.empty()) {
    add("((event >> 8) = 0x118008 AND arg2 = ? COLLATE NOCASE)");
    w.texts.push_back(f.user);
  }
  if (!f.account.empty()) {
    add("account = ? COLLATE NOCASE");
    w.texts.push_back(f.account);
  }
  // The times are bound after every text.
  if (f.since != 0) {
    add("time >= ?");
    w.times.push_back(f.since);
  }
  if (f.until != 0) {
    add("time < ?");
    w.times.push_back(f.until);
  }
  return w;
}

// Binds the filter's values from parameter 1 on; returns the next index.
int BindWhere(sqlite3_stmt* st, const Where& w) {
  int i = 1;
  for (const std::string& t : w.texts) Sq().bind_text(st, i++, t.c_str(), -1, SQLITE_TRANSIENT);
  for (long long t : w.times) Sq().bind_int64(st, i++, static_cast<sqlite3_int64>(t));
  return i;
}

bool ReadEntries(sqlite3* db, int offset, int limit, const tavo::EventLogFilter& filter,
                 Json::Value* out) {
  Stmt exists;
  if (Sq().prepare_v2(db, "SELECT 1 FROM sqlite_master WHERE type='table' AND name='events'", -1,
                      exists.out(), nullptr) != SQLITE_OK) {
    return Fail(db, "reading the schema");
  }
  int rc = Sq().step(exists.get());
  if (rc == SQLITE_DONE) return true;  // no entry was ever written
  if (rc != SQLITE_ROW) return Fail(db, "reading the schema");

  const Where where = MakeWhere(filter);
  Stmt count;
  const std::string count_sql = "SELECT COUNT(*) FROM events" + where.sql;
  if (Sq().prepare_v2(db, count_sql.c_str(), -1, count.out(), nullptr) != SQLITE_OK) {
    return Fail(db, "counting entries");
  }
  BindWhere(count.get(), where);
  if (Sq().step(count.get()) != SQLITE_ROW) return Fail(db, "counting entries");
  (*out)["total"] = static_cast<Json::Int64>(Sq().column_int64(count.get(), 0));

  Stmt list;
  const std::string list_sql =
      "SELECT id, time, event, category, level, arg1, arg2, arg3, arg4,"
      " account, message FROM events" +
      where.sql + " ORDER BY id DESC LIMIT ? OFFSET ?";
  if (Sq().prepare_v2(db, list_sql.c_str(), -1, list.out(), nullptr) != SQLITE_OK) {
    return Fail(db, "listing entries");
  }
  const int next = BindWhere(list.get(), where);
  Sq().bind_int(list.get(), next, limit < 0 ? -1 : limit);
  Sq().bind_int(list.get(), next + 1, offset < 0 ? 0 : offset);
  while ((rc = Sq().step(list.get())) == SQLITE_ROW) {
    sqlite3_stmt* st = list.get();
    Json::Value entry(Json::objectValue);
    entry["id"] = static_cast<Json::Int64>(Sq().column_int64(st, 0));
    entry["time"] = IsoTime(Sq().column_int64(st, 1));
    char id[16];
    std::snprintf(id, sizeof(id), "0x%08X", static_cast<unsigned int>(Sq().column_int64(st, 2)));
    entry["event"] = id;
    entry["category"] = Sq().column_int(st, 3);
    entry["level"] = Sq().column_int(st, 4);
    entry["account"] = Column(st, 9);
    Json::Value args(Json::arrayValue);
    for (int i = 5; i <= 8; ++i) args.append(Column(st, i));
    entry["args"] = args;
    entry["message"] = Column(st, 10);
    (*out)["entries"].append(entry);
  }
  if (rc != SQLITE_DONE) return Fail(db, "listing entries");
  return true;
}

}  // namespace

extern "C" {

int TAVOLogSet1(int category, int level, unsigned int event, const char* a1, const char* a2,
                const char* a3, const char* a4) {
  tavo::acct::internal::MarkNotReusable();  // a write of its own
  const std::string args[4] = {a1 ? a1 : "", a2 ? a2 : "", a3 ? a3 : "", a4 ? a4 : ""};
  const std::string message = tavo::EventLogMessage(event, args[0], args[1], args[2], args[3]);
  const std::string account = tavo::GetRequestAccount();
  std::lock_guard<std::mutex> lock(g_mu);
  sqlite3* db = Acquire();
  if (!db) return -1;
  Stmt st;
  if (Sq().prepare_v2(db,
                      "INSERT INTO events (time, event, category, level, arg1, arg2, arg3,"
                      " arg4, account, message) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
                      -1, st.out(), nullptr) != SQLITE_OK) {
    Fail(db, "preparing an entry");
    Drop();
    return -1;
  }
  Sq().bind_int64(st.get(), 1, static_cast<sqlite3_int64>(time(nullptr)));
  Sq().bind_int64(st.get(), 2, static_cast<sqlite3_int64>(event));
  Sq().bind_int(st.get(), 3, category);
  Sq().bind_int(st.get(), 4, level);
  for (int i = 0; i < 4; ++i) {
    Sq().bind_text(st.get(), 5 + i, args[i].c_str(), -1, SQLITE_TRANSIENT);
  }
  Sq().bind_text(st.get(), 9, account.c_str(), -1, SQLITE_TRANSIENT);
  Sq().bind_text(st.get(), 10, message.c_str(), -1, SQLITE_TRANSIENT);
  if (Sq().step(st.get()) != SQLITE_DONE) {
    Fail(db, "writing an entry");
    Drop();
    return -1;
  }
  return 0;
}

}  // extern "C"

namespace tavo {

void EventLogRestrict() { Tighten(TavoRootPath(kDbPath), false); }

bool EventLogList(int offset, int limit, Json::Value* out) {
  return EventLogList(offset, limit, EventLogFilter(), out);
}

bool EventLogList(int offset, int limit, const EventLogFilter& filter, Json::Value* out) {
  acct::internal::MarkNotReusable();  // the log is no account file
  if (!out) {
    TAVO_ERR_SET(TAVO_ERR_ARGUMENT);
    return false;
  }
  Json::Value result(Json::objectValue);
  result["total"] = 0;
  result["entries"] = Json::Value(Json::arrayValue);
  struct stat st;
  if (stat(TavoRootPath(kDbPath).c_str(), &st) != 0 && errno == ENOENT) {
    *out = result;
    return true;
  }
  std::lock_guard<std::mutex> lock(g_mu);
  sqlite3* db = Acquire();
  if (!db) return false;
  // One read transaction, so that the total and the page agree.
  if (!Exec(db, "BEGIN")) return Fail(db, "starting a read");
  bool ok = ReadEntries(db, offset, limit, filter, &result);
  if (!Exec(db, "COMMIT") && ok) ok = Fail(db, "ending a read");
  if (!ok) {
    Drop();
    return false;
  }
  *out = result;
  return true;
}

}  // namespace tavo
