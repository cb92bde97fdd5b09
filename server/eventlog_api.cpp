#include "eventlog_api.h"

#include "json_util.h"
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

}  // namespace

Status RegisterEventLogApi(ModuleSet* modules) {
  return modules->Register(kEventLogApi, 1, "list", &ListEntry, "the server");
}

}  // namespace tavo_server
