// The event log: an SQLite database at ROOT/var/lib/tavo/events.db.
//
// Each entry records the time, the event identifier, its category and level,
// up to four text arguments, the account that made the request (see
// account.h) and the message made from the event's catalogue entry.
//
// Table "events": id (rising with each entry), time (seconds since the epoch,
// UTC), event, category, level, arg1..arg4, account, message. The database is
// in WAL mode; writers wait up to 10 s for each other. The process keeps one
// connection to the current root's database.
//
// Thread-safety: may be called from any thread and from several processes.
#ifndef TAVO_EVENTLOG_H_
#define TAVO_EVENTLOG_H_

#include <json/value.h>

#include <string>

extern "C" {

// Writes one entry. Null arguments are stored as "". Returns 0, or -1 with
// TAVO_ERR_DB when the database cannot be written.
int TAVOLogSet1(int category, int level, unsigned int event, const char* a1, const char* a2,
                const char* a3, const char* a4);

}  // extern "C"

namespace tavo {

// The catalogue message for an event with its arguments filled in, e.g.
// "Group 'staff' was created." An unknown event gives a generic text.
std::string EventLogMessage(unsigned int event, const std::string& a1, const std::string& a2,
                            const std::string& a3, const std::string& a4);

// Reads entries newest first into `out` as {"total": N, "entries": [{"id",
// "time" (ISO 8601 UTC), "event" (e.g. "0x11800601"), "category", "level",
// "account", "args": [four strings], "message"}]}, N counting all entries.
// `offset` below 0 counts as 0; `limit` -1 (or any negative) means all.
// Returns false with the error state set when the database cannot be read; a
// missing database is an empty log.
bool EventLogList(int offset, int limit, Json::Value* out);

// Takes from the event log's database and its WAL and shared-memory files
// any access of group or others, where they exist (they are made 0600, and a
// process that opens the log does this too). For a server at start.
void EventLogRestrict();

// Which entries EventLogList gives; an empty text, or a time of 0, leaves
// that filter out. Names are compared ignoring the case of ASCII letters.
//   group    entries about that group: created, deleted, described, members
//            added or removed, and renamed from or to that name
//   user     members added to or removed from a group: that user
//   account  made by that account
//   since    made at or after this time (seconds since the epoch, UTC)
//   until    made before this time
struct EventLogFilter {
  std::string group;
  std::string user;
  std::string account;
  long long since = 0;
  long long until = 0;
};

// EventLogList with only the entries that pass `filter`; "total" counts those.
bool EventLogList(int offset, int limit, const EventLogFilter& filter, Json::Value* out);

}  // namespace tavo

#endif  // TAVO_EVENTLOG_H_
