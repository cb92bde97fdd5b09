#include "api/eventlog_api.h"

#include "api/json_util.h"
#include "tavo/error.h"
#include "tavo/eventlog.h"

namespace tavo_server {
namespace {

constexpr int kMaxLimit = 1000;

void ListEntry(TAVO::APIRequest* request, TAVO::APIResponse* response) {
  int offset = 0;
  int limit = 50;
  if (request->HasParam("offset") &&
      (!JsonToInt(request->GetParam("offset", Json::Value()), &offset) || offset < 0)) {
    response->SetError(3201, Json::Value());
    return;
  }
  if (request->HasParam("limit") &&
      (!JsonToInt(request->GetParam("limit", Json::Value()), &limit) || limit < -1 ||
       limit > kMaxLimit)) {
    response->SetError(3201, Json::Value());
    return;
  }
  Json::Value out;
  if (!tavo::EventLogList(offset, limit, &out)) {
    response->SetError(3299, Json::Value());
    return;
  }
  response->SetSuccess(out);
}

// The OpenAPI description of the method above.
Json::Value ListDescription() {
  Json::Value d(Json::objectValue);
  d["summary"] = "Lists the event log, newest first.";
  Json::Value& p = d["params"];
  p["type"] = "object";
  p["properties"]["offset"]["type"] = "integer";
  p["properties"]["offset"]["minimum"] = 0;
  p["properties"]["limit"]["type"] = "integer";
  p["properties"]["limit"]["minimum"] = -1;
  p["properties"]["limit"]["maximum"] = kMaxLimit;
  p["example"]["offset"] = 0;
  p["example"]["limit"] = 5;
  d["answer"]["type"] = "object";
  d["errors"]["3201"] = "offset or limit out of range";
  d["errors"]["3299"] = "the event log cannot be read";
  return d;
}

}  // namespace

Status RegisterEventLogApi(ModuleSet* modules) {
  Status s = modules->Register(kEventLogApi, 1, "list", &ListEntry, "the server");
  if (s.ok()) s = modules->Describe(kEventLogApi, 1, "list", ListDescription());
  return s;
}

}  // namespace tavo_server
