#include "api/openapi.h"

#include <set>
#include <string>

#ifndef TAVO_VERSION
#define TAVO_VERSION "0"
#endif

namespace tavo_server {
namespace {

// Codes any method may answer besides its own: the server's answer when a
// module fails or never writes its response.
constexpr int kCodeUnexpected = 3299;

Json::Value Ref(const std::string& name) {
  Json::Value r(Json::objectValue);
  r["$ref"] = "#/components/schemas/" + name;
  return r;
}

Json::Value Const(const Json::Value& v) {
  Json::Value c(Json::objectValue);
  c["const"] = v;
  return c;
}

Json::Value JsonContent(const Json::Value& schema) {
  Json::Value c(Json::objectValue);
  c["application/json"]["schema"] = schema;
  return c;
}

Json::Value HttpError(const std::string& description) {
  Json::Value schema(Json::objectValue);
  schema["type"] = "object";
  schema["properties"]["error"]["type"] = "string";
  schema["required"].append("error");
  Json::Value r(Json::objectValue);
  r["description"] = description;
  r["content"] = JsonContent(schema);
  return r;
}

// The parameter schema of a described method, with its example moved to the
// JSON Schema "examples" list; an open object when it has no description.
Json::Value ParamsSchema(const Json::Value& d, Json::Value* example) {
  Json::Value params =
      d.isObject() && d["params"].isObject() ? d["params"] : Json::Value(Json::objectValue);
  if (!params.isMember("type")) params["type"] = "object";
  *example = params.isMember("example") ? params["example"] : Json::Value(Json::objectValue);
  params.removeMember("example");
  params["examples"] = Json::Value(Json::arrayValue);
  params["examples"].append(*example);
  return params;
}

// Adds the request, success and error schemas of one method to `schemas`
// under `base`.
void AddMethodSchemas(const ModuleSet::MethodInfo& m, const std::string& base,
                      Json::Value* schemas) {
  const Json::Value& d = m.description ? *m.description : Json::Value::nullSingleton();
  const std::string title = m.api + " v" + std::to_string(m.version) + " " + m.method;
  Json::Value example;
  Json::Value request(Json::objectValue);
  request["title"] = title;
  if (d.isObject() && d["summary"].isString()) request["description"] = d["summary"];
  request["type"] = "object";
  request["properties"]["api"] = Const(m.api);
  request["properties"]["version"] = Const(m.version);
  request["properties"]["method"] = Const(m.method);
  request["properties"]["params"] = ParamsSchema(d, &example);
  for (const char* r : {"api", "method"}) request["required"].append(r);
  Json::Value sample(Json::objectValue);
  sample["api"] = m.api;
  sample["version"] = m.version;
  sample["method"] = m.method;
  sample["params"] = example;
  request["examples"].append(sample);
  (*schemas)[base + ".request"] = request;

  Json::Value success(Json::objectValue);
  success["title"] = title + " answer";
  success["type"] = "object";
  success["properties"]["success"] = Const(true);
  success["properties"]["data"] =
      d.isObject() && d["answer"].isObject() ? d["answer"] : Json::Value(Json::objectValue);
  success["required"].append("success");
  success["required"].append("data");
  (*schemas)[base + ".success"] = success;

  std::set<int> codes = {kCodeUnexpected};
  std::string text;
  if (d.isObject() && d["errors"].isObject()) {
    for (const std::string& code : d["errors"].getMemberNames()) {
      int n = std::atoi(code.c_str());
      if (n <= 0) continue;
      codes.insert(n);
      text += code + ": " + d["errors"][code].asString() + ". ";
    }
  }
  if (!(d.isObject() && d["errors"].isObject() &&
        d["errors"].isMember(std::to_string(kCodeUnexpected))))
    text += std::to_string(kCodeUnexpected) + ": an unexpected failure (see the server's log).";
  Json::Value error(Json::objectValue);
  error["title"] = title + " error";
  error["description"] = text;
  error["type"] = "object";
  error["properties"]["success"] = Const(false);
  Json::Value& code = error["properties"]["error"];
  code["type"] = "object";
  code["properties"]["code"]["type"] = "integer";
  for (int c : codes) code["properties"]["code"]["enum"].append(c);
  code["required"].append("code");
  error["required"].append("success");
  error["required"].append("error");
  (*schemas)[base + ".error"] = error;
}

Json::Value ApiOperation(const ModuleSet& modules, Json::Value* schemas) {
  Json::Value requests(Json::arrayValue), answers(Json::arrayValue);
  std::string list;
  for (const ModuleSet::MethodInfo& m : modules.Methods()) {
    const std::string base = m.api + ".v" + std::to_string(m.version) + "." + m.method;
    AddMethodSchemas(m, base, schemas);
    requests.append(Ref(base + ".request"));
    answers.append(Ref(base + ".success"));
    answers.append(Ref(base + ".error"));
    list += "\n- `" + m.api + "` v" + std::to_string(m.version) + " `" + m.method + "`";
  }
  Json::Value op(Json::objectValue);
  op["operationId"] = "callApi";
  op["summary"] = "Calls one method of one API";
  op["description"] =
      "The body names the API, its version, the method and its parameters; the answer is "
      "{\"success\": true, \"data\": ...} or {\"success\": false, \"error\": {\"code\": N}}, "
      "both with HTTP status 200. The methods served:" +
      list;
  op["requestBody"]["required"] = true;
  Json::Value body(Json::objectValue);
  body["oneOf"] = requests;
  op["requestBody"]["content"] = JsonContent(body);
  Json::Value answer(Json::objectValue);
  answer["oneOf"] = answers;
  op["responses"]["200"]["description"] = "the method's answer envelope";
  op["responses"]["200"]["content"] = JsonContent(answer);
  op["responses"]["400"] =
      HttpError("not a valid call (not JSON, or api, method, version or params of the wrong type)");
  op["responses"]["401"] = HttpError("no session token, or the session has ended");
  op["responses"]["403"] = HttpError("the account is no longer an administrator");
  op["responses"]["404"] = HttpError("no such API, version or method");
  return op;
}

// A GET route answering JSON, with or without a session.
Json::Value GetRoute(const std::string& id, const std::string& summary, bool open,
                     const Json::Value& schema, const std::string& type = "application/json") {
  Json::Value op(Json::objectValue);
  op["operationId"] = id;
  op["summary"] = summary;
  if (open) op["security"] = Json::Value(Json::arrayValue);
  op["responses"]["200"]["description"] = summary;
  op["responses"]["200"]["content"][type]["schema"] = schema;
  if (!open) op["responses"]["401"] = HttpError("no session token, or the session has ended");
  return op;
}

Json::Value AuthPaths() {
  Json::Value paths(Json::objectValue);
  Json::Value login(Json::objectValue);
  login["operationId"] = "login";
  login["summary"] =
      "Logs an administrator in; answers the session token and sets the session cookie";
  login["security"] = Json::Value(Json::arrayValue);
  Json::Value creds(Json::objectValue);
  creds["type"] = "object";
  creds["properties"]["account"]["type"] = "string";
  creds["properties"]["password"]["type"] = "string";
  creds["required"].append("account");
  creds["required"].append("password");
  login["requestBody"]["required"] = true;
  login["requestBody"]["content"] = JsonContent(creds);
  Json::Value session(Json::objectValue);
  session["type"] = "object";
  session["properties"]["success"]["type"] = "boolean";
  session["properties"]["data"]["type"] = "object";
  session["properties"]["data"]["properties"]["token"]["type"] = "string";
  session["properties"]["data"]["properties"]["account"]["type"] = "string";
  session["properties"]["data"]["properties"]["idle_timeout"]["type"] = "integer";
  login["responses"]["200"]["description"] = "logged in, or refused with an API error code";
  login["responses"]["200"]["content"] = JsonContent(session);
  login["responses"]["429"] = HttpError("too many failed logins; try again later");
  paths["/api/auth/login"]["post"] = login;

  Json::Value logout(Json::objectValue);
  logout["operationId"] = "logout";
  logout["summary"] = "Ends the session of the token or cookie";
  logout["security"] = Json::Value(Json::arrayValue);
  logout["responses"]["200"]["description"] = "the session has ended";
  paths["/api/auth/logout"]["post"] = logout;

  paths["/api/auth/session"]["get"] =
      GetRoute("session", "With the session cookie: whether the session is alive, and its token",
               true, session);
  return paths;
}

}  // namespace

Json::Value BuildOpenApi(const ModuleSet& modules) {
  Json::Value doc(Json::objectValue);
  doc["openapi"] = "3.1.0";
  doc["info"]["title"] = "Tavo web API";
  doc["info"]["version"] = TAVO_VERSION;
  doc["info"]["description"] =
      "Group administration of the appliance. Log in as a member of administrators, then send "
      "the session token in `Authorization: Bearer TOKEN` (or `X-Tavo-Token`).";
  Json::Value& schemes = doc["components"]["securitySchemes"];
  schemes["bearer"]["type"] = "http";
  schemes["bearer"]["scheme"] = "bearer";
  schemes["token"]["type"] = "apiKey";
  schemes["token"]["in"] = "header";
  schemes["token"]["name"] = "X-Tavo-Token";
  Json::Value bearer(Json::objectValue), token(Json::objectValue);
  bearer["bearer"] = Json::Value(Json::arrayValue);
  token["token"] = Json::Value(Json::arrayValue);
  doc["security"].append(bearer);
  doc["security"].append(token);

  Json::Value schemas(Json::objectValue);
  Json::Value paths = AuthPaths();
  paths["/api"]["post"] = ApiOperation(modules, &schemas);
  Json::Value any(Json::objectValue);
  any["type"] = "object";
  paths["/api/info"]["get"] = GetRoute("info", "The loaded APIs and their methods", false, any);
  paths["/api/openapi.json"]["get"] = GetRoute("openapi", "This document", true, any);
  Json::Value health(Json::objectValue);
  health["type"] = "object";
  health["properties"]["status"] = Const("ok");
  paths["/healthz"]["get"] =
      GetRoute("health", "Answers while the server serves; needs no session", true, health);
  Json::Value text(Json::objectValue);
  text["type"] = "string";
  paths["/metrics"]["get"] =
      GetRoute("metrics", "Counters in the Prometheus text format (administrators)", false, text,
               "text/plain");
  doc["paths"] = paths;
  doc["components"]["schemas"] = schemas;
  return doc;
}

}  // namespace tavo_server
