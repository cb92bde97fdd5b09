#include "directory/dir_status.h"

#include <cstdlib>
#include <ctime>
#include <sstream>

#include "tavo/root.h"
#include "tavo/util.h"

namespace tavo_dir {
namespace {

std::string StatePath(Kind kind) {
  return tavo::TavoRootPath(std::string("/var/lib/tavo/directory/") + KindName(kind) + ".status");
}

int64_t ToInt(const std::string& s) { return std::strtoll(s.c_str(), nullptr, 10); }

}  // namespace

std::string IsoTime(int64_t t) {
  time_t tt = static_cast<time_t>(t);
  struct tm tm;
  gmtime_r(&tt, &tm);
  char buf[32];
  strftime(buf, sizeof(buf), "%Y-%m-%dT%H:%M:%SZ", &tm);
  return buf;
}

SyncState ReadSyncState(Kind kind) {
  SyncState st;
  std::string text;
  if (!ReadWholeFile(StatePath(kind), &text)) return st;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    size_t eq = line.find(" = ");
    if (eq == std::string::npos) continue;
    std::string k = line.substr(0, eq), v = line.substr(eq + 3);
    if (k == "server")
      st.server = v;
    else if (k == "last_sync")
      st.last_sync = ToInt(v);
    else if (k == "groups")
      st.groups = ToInt(v);
    else if (k == "skipped")
      st.skipped = ToInt(v);
    else if (k == "duration_ms")
      st.duration_ms = ToInt(v);
    else if (k == "last_error_time")
      st.last_error_time = ToInt(v);
    else if (k == "last_error")
      st.last_error = v;
  }
  return st;
}

bool WriteSyncState(Kind kind, const SyncState& st, std::string* error) {
  std::string err = st.last_error;
  for (char& c : err)
    if (c == '\n' || c == '\r') c = ' ';
  std::ostringstream out;
  out << "server = " << st.server << "\nlast_sync = " << st.last_sync << "\ngroups = " << st.groups
      << "\nskipped = " << st.skipped << "\nduration_ms = " << st.duration_ms
      << "\nlast_error_time = " << st.last_error_time << "\nlast_error = " << err << "\n";
  return ReplaceFile(StatePath(kind), out.str(), 0644, error);
}

bool RemoveSyncState(Kind kind, std::string* error) {
  std::string path = std::string("/var/lib/tavo/directory/") + KindName(kind) + ".status";
  return RemoveRootFile(path.c_str(), error);
}

Json::Value StatusJson(Kind kind) {
  Json::Value out(Json::objectValue);
  Binding b;
  std::string error;
  bool present = ReadBinding(kind, &b, &error);
  out[kind == Kind::kLdap ? "bound" : "joined"] = present;
  out["name"] = present ? b.name : "";
  out["uri"] = present ? b.Get("uri") : "";
  SyncState st = ReadSyncState(kind);
  out["server"] = st.server;
  out["last_sync"] = Json::Value();
  if (st.last_sync > 0) {
    Json::Value s;
    s["time"] = IsoTime(st.last_sync);
    s["groups"] = static_cast<Json::Int64>(st.groups);
    s["skipped"] = static_cast<Json::Int64>(st.skipped);
    s["duration_ms"] = static_cast<Json::Int64>(st.duration_ms);
    out["last_sync"] = s;
  }
  out["last_error"] = Json::Value();
  if (st.last_error_time > 0) {
    Json::Value e;
    e["time"] = IsoTime(st.last_error_time);
    e["message"] = st.last_error;
    out["last_error"] = e;
  }
  if (kind == Kind::kDomain) {
    int pid = TLIBCReadPidFile(kDomainPidPath);
    out["rebuilding"] = pid >= 0 ? Json::Value(pid) : Json::Value();
  }
  return out;
}

}  // namespace tavo_dir
