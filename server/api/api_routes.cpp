#include "api/api_routes.h"

#include <cstdio>

#include "api/directory_api.h"
#include "api/dispatch.h"
#include "api/eventlog_api.h"
#include "api/json_util.h"

namespace tavo_server {

namespace {
// Longest POST body looked into for the call's name on an event thread.
constexpr size_t kPeekBytes = 4096;
}  // namespace

void ApiRoutes::Register(HttpServer& server) {
  using Lane = HttpServer::Lane;
  using Req = const HttpRequest&;
  using Res = HttpResponse&;
  // Module calls may wait for a module's lock: they run on a pool of their
  // own, unless they take no lock. /api/info reads the account files, and
  // /metrics asks the account side for its figures.
  const HttpServer::LockFree lock_free = &CallTakesNoLock;
  server.AddRoute("GET", "/api/info", Lane::kWorker, [this](Req q, Res r) { Info(q, r); });
  // Where the calls run in another process, they are started from the event
  // thread and answered from the channel, holding no worker while they run.
  HttpServer::Starter start;
  if (ops_.StartsCalls())
    start = [this](Req q, Res r, HttpServer::Done done) { return Start(q, r, std::move(done)); };
  server.AddRoute(
      "POST", "/api", Lane::kCall, [this](Req q, Res r) { Post(q, r); }, lock_free, start);
  server.AddRoute(
      "GET", "/api", Lane::kCall, [this](Req q, Res r) { Get(q, r); }, lock_free, start);
  server.AddRoute("GET", "/metrics", Lane::kWorker, [this](Req q, Res r) { MetricsText(q, r); });
}

void ApiRoutes::MetricsText(const HttpRequest& req, HttpResponse& res) {
  SessionStore::Session s;
  if (!auth_.Authorize(req, res, &s)) return;
  res.status = 200;
  res.SetHeader("Cache-Control", "no-store");
  res.content_type = "text/plain; version=0.0.4; charset=utf-8";
  res.body = metrics_.Render(auth_.SessionCount(), ops_.Stats());
}

bool ApiRoutes::CallTakesNoLock(const HttpRequest& req) {
  std::string api, method;
  if (req.method == "POST") {
    Json::Value body;
    if (req.body.size() > kPeekBytes || !ParseJson(req.body, &body) || !body.isObject() ||
        !body["api"].isString() || !body["method"].isString())
      return false;
    api = body["api"].asString();
    method = body["method"].asString();
  } else {
    for (const auto& kv : req.query) {
      if (kv.first == "api") api = kv.second;
      if (kv.first == "method") method = kv.second;
    }
  }
  return TakesNoLock(api, method);
}

void ApiRoutes::Serve(const HttpRequest& req, HttpResponse& res, const SessionStore::Session& s,
                      const Json::Value& envelope) {
  const LoginIdentity who{s.account, s.stamp, s.grant};
  ApiCall call;
  std::string error;
  if (!CallFromJson(envelope, &call, &error)) {
    // A session whose account was withdrawn hears that first.
    if (!auth_.Refuse(req, res, s, ops_.Recheck(who))) SendError(res, 400, error);
    return;
  }
  res.log.api = call.api;
  res.log.version = call.version;
  res.log.method = call.method;
  Respond(req, res, s, call, ops_.Call(call, who), /*may_block=*/true);
}

void ApiRoutes::Respond(const HttpRequest& req, HttpResponse& res, const SessionStore::Session& s,
                        const ApiCall& call, const AccountOps::Answer& answer, bool may_block) {
  if (answer.denied) {
    if (may_block) {
      auth_.Refuse(req, res, s, LoginResult::kDenied);
    } else {
      auth_.RefuseQuick(req, res, s, LoginResult::kDenied);
    }
    return;
  }
  if (answer.unavailable) {
    SendError(res, 500, "the account service is unavailable");
    return;
  }
  const CallResult& result = answer.result;
  if (result.lookup != ModuleSet::Lookup::kFound) {
    SendError(res, 404, LookupMessage(result.lookup, call));
    return;
  }
  res.log.code = result.code;
  res.log.served = true;
  // How long the module itself ran, so that a client can tell the server's
  // own cost of a call from the module's work (shown by browsers' tools).
  if (result.module_us > 0) {
    char timing[48];
    snprintf(timing, sizeof timing, "module;dur=%.3f", result.module_us / 1000.0);
    res.SetHeader("Server-Timing", timing);
  }
  if (result.text) {
    SendJsonText(res, *result.text);
  } else {
    SendJson(res, result.envelope);
  }
}

void ApiRoutes::Info(const HttpRequest& req, HttpResponse& res) {
  SessionStore::Session s;
  if (!auth_.Authorize(req, res, &s)) return;
  Json::Value out(Json::objectValue);
  out["success"] = true;
  out["data"] = ops_.Info();
  SendJson(res, out);
}

void ApiRoutes::Post(const HttpRequest& req, HttpResponse& res) {
  SessionStore::Session s;
  if (!auth_.Authorize(req, res, &s, /*recheck=*/false)) return;
  Json::Value body;
  if (!ParseJson(req.body, &body)) {
    if (!auth_.Refuse(req, res, s, ops_.Recheck(LoginIdentity{s.account, s.stamp, s.grant})))
      SendError(res, 400, "the request body is not JSON");
    return;
  }
  Serve(req, res, s, body);
}

void ApiRoutes::Get(const HttpRequest& req, HttpResponse& res) {
  SessionStore::Session s;
  if (!auth_.Authorize(req, res, &s, /*recheck=*/false)) return;
  Serve(req, res, s, EnvelopeOfQuery(req));
}

Json::Value ApiRoutes::EnvelopeOfQuery(const HttpRequest& req) {
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
  return body;
}

bool ApiRoutes::Start(const HttpRequest& req, HttpResponse& res, HttpServer::Done done) {
  Json::Value envelope;
  if (req.method == "POST" && (req.body.size() > kPeekBytes || !ParseJson(req.body, &envelope)))
    return false;  // a worker parses it, or answers why not
  SessionStore::Session s;
  switch (auth_.AuthorizeQuick(req, res, &s)) {
    case AuthRoutes::Quick::kBlocked:
      return false;
    case AuthRoutes::Quick::kRefused:
      done();
      return true;
    case AuthRoutes::Quick::kPass:
      break;
  }
  if (req.method != "POST") envelope = EnvelopeOfQuery(req);
  ApiCall call;
  std::string error;
  // A body that is no call is answered after a re-check, on a worker.
  if (!CallFromJson(envelope, &call, &error)) return false;
  res.log.api = call.api;
  res.log.version = call.version;
  res.log.method = call.method;
  const LoginIdentity who{s.account, s.stamp, s.grant};
  return ops_.CallLater(call, who,
                        [this, &req, &res, s, api = call.api, version = call.version,
                         method = call.method, done](AccountOps::Answer answer) {
                          ApiCall named;
                          named.api = api;
                          named.version = version;
                          named.method = method;
                          Respond(req, res, s, named, answer, /*may_block=*/false);
                          done();
                        });
}

}  // namespace tavo_server
