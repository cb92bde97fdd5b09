// The API routes of the HTTP server: POST /api, GET /api and GET /api/info.
#include "dispatch.h"
#include "http_impl.h"
#include "json_util.h"

namespace tavo_server {
namespace {

// Checks the envelope {"api", "version", "method", "params"} (400 when it is
// not one) and runs the call for `account`.
void Serve(AccountOps& ops, const Json::Value& envelope, const LoginIdentity& who,
           HttpResponse& res) {
  ApiCall call;
  std::string error;
  if (!CallFromJson(envelope, &call, &error)) {
    SendError(res, 400, error);
    return;
  }
  res.log.api = call.api;
  res.log.version = call.version;
  res.log.method = call.method;
  AccountOps::Answer answer = ops.Call(call, who);
  if (answer.denied || answer.unavailable) {
    SendError(res, answer.denied ? 401 : 500,
              answer.denied ? "the session has ended: log in again" : "the account service is unavailable");
    return;
  }
  const CallResult& result = answer.result;
  if (result.lookup != ModuleSet::Lookup::kFound) {
    SendError(res, 404, LookupMessage(result.lookup, call));
    return;
  }
  res.log.code = result.code;
  SendJson(res, result.envelope);
}

}  // namespace

void HttpServer::Impl::ApiInfo(const HttpRequest& req, HttpResponse& res) {
  SessionStore::Session s;
  if (!Authorize(req, res, &s)) return;
  Json::Value out(Json::objectValue);
  out["success"] = true;
  out["data"] = ops.Info();
  SendJson(res, out);
}

void HttpServer::Impl::ApiPost(const HttpRequest& req, HttpResponse& res) {
  SessionStore::Session s;
  if (!Authorize(req, res, &s)) return;
  Json::Value body;
  if (!ParseJson(req.body, &body)) {
    SendError(res, 400, "the request body is not JSON");
    return;
  }
  Serve(ops, body, LoginIdentity{s.account, s.stamp, s.grant}, res);
}

void HttpServer::Impl::ApiGet(const HttpRequest& req, HttpResponse& res) {
  SessionStore::Session s;
  if (!Authorize(req, res, &s)) return;
  // api, version and method name the call; every other query parameter is a
  // parameter of the method, read as JSON when it parses as JSON.
  Json::Value body(Json::objectValue);
  Json::Value params(Json::objectValue);
  for (const auto& kv : req.query) {
    if (kv.first == "api" || kv.first == "method") {
      body[kv.first] = kv.second;
    } else if (kv.first == "version") {
      body[kv.first] = ValueFromText(kv.second);
    } else {
      params[kv.first] = ValueFromText(kv.second);
    }
  }
  body["params"] = params;
  Serve(ops, body, LoginIdentity{s.account, s.stamp, s.grant}, res);
}

}  // namespace tavo_server
