// Event-log entries of the directory services (catalogue in the platform's
// event log). Arguments never hold a secret.
//
// Thread-safety: may be called from any thread.
#ifndef TAVO_DIRECTORY_DIR_EVENTS_H_
#define TAVO_DIRECTORY_DIR_EVENTS_H_

#include <cstdint>
#include <string>

#include "directory/dir_files.h"

namespace tavo_dir {

constexpr unsigned kEventLdapBound = 0x11800900;
constexpr unsigned kEventLdapUnbound = 0x11800901;
constexpr unsigned kEventDomainJoined = 0x11800902;
constexpr unsigned kEventDomainLeft = 0x11800903;
constexpr unsigned kEventSyncDone = 0x11800904;
constexpr unsigned kEventSyncFailed = 0x11800905;

void LogBound(Kind kind, const std::string& name, const std::string& server);
void LogUnbound(Kind kind, const std::string& name);
void LogSyncDone(Kind kind, const std::string& name, int64_t groups, const std::string& server,
                 int64_t duration_ms);
void LogSyncFailed(Kind kind, const std::string& name, const std::string& error);

}  // namespace tavo_dir

#endif  // TAVO_DIRECTORY_DIR_EVENTS_H_
