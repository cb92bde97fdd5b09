#include "api/eventlog_api.h"

#include <time.h>

#include <cstdio>
#include <string>

#include "api/json_util.h"
#include "tavo/error.h"
#include "tavo/eventlog.h"

namespace tavo_server {
namespace {

constexpr int kMaxLimit = 1000;

// "2026-11-22" (midnight) or "2026-11-22T01:40:00Z", in UTC, to seconds since
// the epoch. False for anything else, impossible dates included.
bool ParseUtcTime(const std::string& text, long long* seconds) {
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0, used = 0;
  if (text.size() == 10) {
    if (std::sscanf(text.c_str(), "%4d-%2d-%2d%n", &y, &mo, &d, &used) != 3 || used != 10)
      return false;
  } else if (text.size() == 20) {
    if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2dZ%n", &y, &mo, &d, &h, &mi, &s, &used) !=
            6 ||
        used != 20) {
      return false;
    }
  } else {
    return false;
  }
  if (text[4] != '-' || text[7] != '-' || y < 1970 || y > 9999) return false;
  struct tm tm = {};
  tm.tm_year = y - 1900;
  tm.tm_mon = mo - 1;
  tm.tm_mday = d;
  tm.tm_hour = h;
  tm.tm_min = mi;
  tm.tm_sec = s;
  const time_t t = timegm(&tm);
  struct tm back;
  if (t == static_cast<time_t>(-1) || !gmtime_r(&t, &back) || back.tm_year != y - 1900 ||
      back.tm_mon != mo - 1 || back.tm_mday != d || back.tm_hour != h || back.tm_min != mi ||
      back.tm_sec != s) {
    return false;
  }
  *seconds = static_cast<long long>(t);
  return true;
}

// Reads the optional filters; false when one is present but not a string of
// the expected form.
bool ReadFilter(TAVO::APIRequest* request, tavo::EventLogFilter* filter) {
  const struct {
    const char* name;
    std::string* text;
  } names[] = {{"group", &filter->group}, {"user", &filter->user}, {"account", &filter->account}};
  for (const auto& n : names) {
    if (!request->HasParam(n.name)) continue;
    const Json::Value v = request->GetParam(n.name, Json::Value());
    if (!v.isString()) return false;
    *n.text = v.asString();
  }
  const struct {
    const char* name;
    long long* time;
  } times[] = {{"since", &filter->since}, {"until", &filter->until}};
  for (const auto& t : times) {
    if (!request->HasParam(t.name)) continue;
    const Json::Value v = request->GetParam(t.name, Json::Value());
    if (!v.isString()) return false;
    if (!v.asString().empty() && !ParseUtcTime(v.asString(), t.time)) return false;
  }
  return true;
}

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
  tavo::EventLogFilter filter;
  if (!ReadFilter(request, &filter)) {
    response->SetError(3201, Json::Value());
    return;
  }
  Json::Value out;
  if (!tavo::EventLogList(offset, limit, filter, &out)) {
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
  for (const char* name : {"group", "user", "account"}) p["properties"][name]["type"] = "string";
  for (const char* name : {"since", "until"}) {
    p["properties"][name]["type"] = "string";
    p["properties"][name]["description"] = "UTC date (2026-11-22) or time (2026-11-22T01:40:00Z)";
  }
  p["example"]["offset"] = 0;
  p["example"]["limit"] = 5;
  d["answer"]["type"] = "object";
  d["errors"]["3201"] =
      "offset or limit out of range, or a filter that is not a string of its form";
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
