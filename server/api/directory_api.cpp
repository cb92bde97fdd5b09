#include "api/directory_api.h"

#include "api/json_util.h"
#include "directory/dir_status.h"
#include "directory/group_sync.h"

namespace tavo_server {
namespace {

using tavo_dir::Kind;

Json::Value AllStatus() {
  Json::Value out;
  out["ldap"] = tavo_dir::StatusJson(Kind::kLdap);
  out["domain"] = tavo_dir::StatusJson(Kind::kDomain);
  return out;
}

void StatusEntry(TAVO::APIRequest*, TAVO::APIResponse* response) {
  response->SetSuccess(AllStatus());
}

void SyncEntry(TAVO::APIRequest* request, TAVO::APIResponse* response) {
  std::vector<Kind> kinds;
  if (request->HasParam("type")) {
    Json::Value t = request->GetParam("type", Json::Value());
    if (!t.isString() || (t.asString() != "ldap" && t.asString() != "domain")) {
      response->SetError(3201, Json::Value());
      return;
    }
    kinds.push_back(t.asString() == "ldap" ? Kind::kLdap : Kind::kDomain);
  } else {
    for (Kind kind : {Kind::kLdap, Kind::kDomain}) {
      tavo_dir::Binding b;
      std::string error;
      if (tavo_dir::ReadBinding(kind, &b, &error)) kinds.push_back(kind);
    }
  }
  Json::Value out;
  out["results"] = Json::Value(Json::arrayValue);
  for (Kind kind : kinds) {
    tavo_dir::SyncResult r = tavo_dir::SyncDirectory(kind);
    Json::Value one;
    one["type"] = tavo_dir::KindName(kind);
    one["ok"] = r.ok;
    one["groups"] = static_cast<Json::Int64>(r.groups);
    one["skipped"] = static_cast<Json::Int64>(r.skipped);
    one["duration_ms"] = static_cast<Json::Int64>(r.duration_ms);
    one["server"] = r.server;
    one["error"] = r.error;
    out["results"].append(one);
  }
  out["status"] = AllStatus();
  response->SetSuccess(out);
}

// The OpenAPI descriptions of the two methods above.
const char kStatusDescription[] = R"json({
  "summary": "The binding, server, last synchronisation and last error of each directory.",
  "params": {"type": "object", "example": {}},
  "answer": {"type": "object", "properties": {"ldap": {"type": "object"}, "domain": {"type": "object"}},
             "required": ["ldap", "domain"]}
})json";
const char kSyncDescription[] = R"json({
  "summary": "Synchronises the group lists of the bound directories now.",
  "params": {"type": "object",
             "properties": {"type": {"type": "string", "enum": ["ldap", "domain"],
                                     "description": "only this directory; default every one in use"}},
             "example": {}},
  "answer": {"type": "object",
             "properties": {"results": {"type": "array", "items": {"type": "object"}}, "status": {"type": "object"}},
             "required": ["results", "status"]},
  "errors": {"3201": "type is not \"ldap\" or \"domain\""}
})json";

Status Describe(ModuleSet* modules, const char* method, const char* text) {
  Json::Value d;
  if (!ParseJson(text, &d)) return Status::Error(std::string("bad description of ") + method);
  return modules->Describe(kDirectoryApi, 1, method, d);
}

}  // namespace

Status RegisterDirectoryApi(ModuleSet* modules) {
  Status s = modules->Register(kDirectoryApi, 1, "status", &StatusEntry, "the server");
  if (s.ok()) s = modules->Register(kDirectoryApi, 1, "sync", &SyncEntry, "the server");
  if (s.ok()) s = Describe(modules, "status", kStatusDescription);
  if (s.ok()) s = Describe(modules, "sync", kSyncDescription);
  return s;
}

}  // namespace tavo_server
