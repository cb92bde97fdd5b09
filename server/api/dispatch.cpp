#include "api/dispatch.h"

#include <syslog.h>

#include <chrono>
#include <exception>

#include "api/directory_api.h"
#include "api/eventlog_api.h"
#include "api/json_util.h"
#include "tavo/account.h"

namespace tavo_server {
namespace {

constexpr int kCodeSuccess = 3200;
constexpr int kCodeUnknown = 3299;

}  // namespace

bool ParamsFromText(const std::string& text, Json::Value* params) {
  std::string error;
  return ParseJson(text, params) && params->isObject() && CheckText(*params, &error);
}

bool CallFromJson(const Json::Value& body, ApiCall* call, std::string* error) {
  if (!body.isObject()) {
    *error = "the request must be a JSON object";
    return false;
  }
  if (!CheckText(body, error)) return false;
  const Json::Value& api = body["api"];
  const Json::Value& method = body["method"];
  if (!api.isString() || api.asString().empty()) {
    *error = "\"api\" must be a non-empty string";
    return false;
  }
  if (!method.isString() || method.asString().empty()) {
    *error = "\"method\" must be a non-empty string";
    return false;
  }
  int version = 1;
  if (body.isMember("version") && (!JsonToInt(body["version"], &version) || version < 1)) {
    *error = "\"version\" must be an integer of at least 1";
    return false;
  }
  Json::Value params(Json::objectValue);
  if (body.isMember("params") && !body["params"].isNull()) {
    if (!body["params"].isObject()) {
      *error = "\"params\" must be a JSON object";
      return false;
    }
    params = body["params"];
  }
  call->api = api.asString();
  call->method = method.asString();
  call->version = version;
  call->params = params;
  return true;
}

bool TakesNoLock(const std::string& api, const std::string& method) {
  return (api == kEventLogApi && method == "list") || (api == kDirectoryApi && method == "status");
}

CallResult Dispatch(const ModuleSet& modules, const ApiCall& call, const std::string& account) {
  CallResult result;
  MethodEntry entry = nullptr;
  result.lookup = modules.Find(call.api, call.version, call.method, &entry);
  if (result.lookup != ModuleSet::Lookup::kFound) return result;

  TAVO::APIRequest request(call.params, call.api, call.version, call.method, account);
  TAVO::APIResponse response;
  bool failed = false;
  {
    tavo::ScopedRequestAccount scoped(account);
    const auto start = std::chrono::steady_clock::now();
    try {
      entry(&request, &response);
    } catch (const std::exception& e) {
      syslog(LOG_ERR, "tavo: %s v%d %s threw an exception: %s", call.api.c_str(), call.version,
             call.method.c_str(), e.what());
      failed = true;
    } catch (...) {
      syslog(LOG_ERR, "tavo: %s v%d %s threw a non-standard exception", call.api.c_str(),
             call.version, call.method.c_str());
      failed = true;
    }
    result.module_us =
        std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
  }
  if (failed) {
    TAVO::APIResponse unknown;
    unknown.SetError(kCodeUnknown, Json::Value());
    result.envelope = unknown.Envelope();
    result.code = kCodeUnknown;
    return result;
  }
  if (response.WriteCount() != 1)
    syslog(LOG_WARNING, "tavo: %s v%d %s wrote its response %d times", call.api.c_str(),
           call.version, call.method.c_str(), response.WriteCount());
  result.code = response.WriteCount() == 0 ? kCodeUnknown
                : response.IsSuccess()     ? kCodeSuccess
                                           : response.Code();
  result.envelope = response.TakeEnvelope();
  return result;
}

std::string LookupMessage(ModuleSet::Lookup lookup, const ApiCall& call) {
  switch (lookup) {
    case ModuleSet::Lookup::kNoApi:
      return "unknown API '" + call.api + "'";
    case ModuleSet::Lookup::kNoVersion:
      return "API '" + call.api + "' has no version " + std::to_string(call.version);
    case ModuleSet::Lookup::kNoMethod:
      return "API '" + call.api + "' version " + std::to_string(call.version) + " has no method '" +
             call.method + "'";
    case ModuleSet::Lookup::kFound:
      break;
  }
  return "";
}

}  // namespace tavo_server
