#include "directory/dir_events.h"

#include "tavo/eventlog.h"

namespace tavo_dir {
namespace {

constexpr int kCategory = 2;
constexpr int kInfo = 1;
constexpr int kWarning = 2;

std::string Label(Kind kind, const std::string& name) {
  return (kind == Kind::kLdap ? "LDAP directory " : "Windows domain ") + name;
}

}  // namespace

void LogBound(Kind kind, const std::string& name, const std::string& server) {
  TAVOLogSet1(kCategory, kInfo, kind == Kind::kLdap ? kEventLdapBound : kEventDomainJoined,
              name.c_str(), server.c_str(), "", "");
}

void LogUnbound(Kind kind, const std::string& name) {
  TAVOLogSet1(kCategory, kInfo, kind == Kind::kLdap ? kEventLdapUnbound : kEventDomainLeft,
              name.c_str(), "", "", "");
}

void LogSyncDone(Kind kind, const std::string& name, int64_t groups, const std::string& server,
                 int64_t duration_ms) {
  TAVOLogSet1(kCategory, kInfo, kEventSyncDone, Label(kind, name).c_str(),
              std::to_string(groups).c_str(), server.c_str(), std::to_string(duration_ms).c_str());
}

void LogSyncFailed(Kind kind, const std::string& name, const std::string& error) {
  TAVOLogSet1(kCategory, kWarning, kEventSyncFailed, Label(kind, name).c_str(), error.c_str(), "",
              "");
}

}  // namespace tavo_dir
