// Fuzz target: the server's HTTP glue, after the HTTP library has parsed a
// request: routing, Host and Origin checks, cookies, tokens, logins, the API
// envelope and query decoding, static paths, ETags and compression.
//
// Input: the method on the first line, the path (with an optional "?query"
// of k=v pairs joined by '&') on the second, then "Name: value" header lines
// up to an empty line, then the body. In header values "$TOKEN" and "$SID"
// stand for the token and the cookie id of a session that exists, so that the
// paths behind a login are reached. The account side is a stand-in that
// counts calls (no password hashing, no files). Properties checked:
//  - the status is one the server documents;
//  - a module call or a metrics answer happens only for a request that
//    carried the session's token;
//  - a static file served lies inside the web folder;
//  - no answer header holds CR, LF or NUL;
//  - a login that failed started no session.
#include <json/value.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <fstream>
#include <set>
#include <string>

#include "api/api_routes.h"
#include "api/json_util.h"
#include "auth/auth_routes.h"
#include "cli/options.h"
#include "fuzz/fuzz_root.h"
#include "http/http_impl.h"
#include "privsep/account_ops.h"

using tavo_fuzz::Fail;
namespace ts = tavo_server;

namespace {

class CountingOps : public ts::AccountOps {
 public:
  std::atomic<int> calls{0};
  ts::LoginResult CheckLogin(const std::string& account, const std::string& password,
                             ts::LoginIdentity* who) override {
    if (account != "admin" || password != "right") return ts::LoginResult::kDenied;
    *who = ts::LoginIdentity{"admin", "stamp", "grant"};
    return ts::LoginResult::kOk;
  }
  ts::LoginResult Recheck(const ts::LoginIdentity& who) override {
    return who.grant == "grant" ? ts::LoginResult::kOk : ts::LoginResult::kDenied;
  }
  Answer Call(const ts::ApiCall&, const ts::LoginIdentity& who) override {
    Answer a;
    if (Recheck(who) != ts::LoginResult::kOk) {
      a.denied = true;
      return a;
    }
    ++calls;
    a.result.lookup = ts::ModuleSet::Lookup::kFound;
    a.result.code = 3200;
    a.result.envelope["success"] = true;
    a.result.envelope["data"] = Json::Value(Json::objectValue);
    return a;
  }
  void Logout(const ts::LoginIdentity&) override {}
  Json::Value Info() override { return Json::Value(Json::objectValue); }
  Json::Value Stats() override {
    ++calls;
    return Json::Value(Json::objectValue);
  }
};

struct World {
  std::string web;
  ts::ServeOptions options;
  CountingOps ops;
  ts::HttpServer* server = nullptr;
  ts::HttpServer::Impl* impl = nullptr;
  ts::AuthRoutes* auth = nullptr;
  ts::SessionStore* sessions = nullptr;
  ts::SessionStore::Session session;

  World() {
    char tmpl[] = "/tmp/tavo-fuzz-web-XXXXXX";
    web = mkdtemp(tmpl);
    std::ofstream(web + "/index.html")
        << "<!doctype html><title>t</title>" << std::string(2000, 'x');
    mkdir((web + "/js").c_str(), 0755);
    std::ofstream(web + "/js/app.js") << "export const a = 1;\n";
    options.root = "/nonexistent";
    options.web_dir = web;
    options.openapi_json = "{\"openapi\":\"3.1.0\"}";
    // The routes as `tavo serve` registers them; never freed (the target
    // lives as long as the process).
    server = new ts::HttpServer(options);
    auth = new ts::AuthRoutes(options, ops, server->metrics());
    auth->Register(*server);
    (new ts::ApiRoutes(ops, *auth, server->metrics()))->Register(*server);
    impl = &server->internals();
    sessions = &auth->sessions();
    sessions->Create("admin", "stamp", &session, "grant");
  }
};

std::string Replace(std::string s, const std::string& from, const std::string& to) {
  for (size_t p = s.find(from); p != std::string::npos; p = s.find(from, p + to.size()))
    s.replace(p, from.size(), to);
  return s;
}

bool HasBadByte(const std::string& s) {
  return s.find_first_of(std::string("\r\n\0", 3)) != std::string::npos;
}

const std::set<int> kStatuses = {200, 304, 400, 401, 403, 404, 405, 411,
                                 413, 414, 421, 429, 431, 500, 503};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static World* w = new World;
  if (size > 4096) return -1;
  const std::string input(reinterpret_cast<const char*>(data), size);
  size_t pos = 0;
  auto line = [&](std::string* out) {
    if (pos > input.size()) return false;
    size_t end = input.find('\n', pos);
    if (end == std::string::npos) end = input.size();
    *out = input.substr(pos, end - pos);
    pos = end + 1;
    return true;
  };
  ts::HttpRequest req;
  std::string target;
  line(&req.method);
  if (req.method.empty()) req.method = "GET";
  line(&target);
  req.path = target.substr(0, target.find('?'));
  if (req.path.empty()) req.path = "/";
  if (target.find('?') != std::string::npos) {
    std::string q = target.substr(target.find('?') + 1);
    size_t p = 0;
    while (p <= q.size()) {
      size_t e = q.find('&', p);
      if (e == std::string::npos) e = q.size();
      std::string kv = q.substr(p, e - p);
      size_t eq = kv.find('=');
      req.query.emplace_back(kv.substr(0, eq), eq == std::string::npos ? "" : kv.substr(eq + 1));
      p = e + 1;
    }
  }
  std::string h;
  while (line(&h) && !h.empty()) {
    size_t colon = h.find(':');
    std::string value = colon == std::string::npos ? "" : h.substr(colon + 1);
    while (!value.empty() && value[0] == ' ') value.erase(0, 1);
    value = Replace(Replace(value, "$TOKEN", w->session.token), "$SID", w->session.id);
    req.headers.emplace_back(h.substr(0, colon), value);
  }
  if (pos < input.size()) req.body = input.substr(pos);
  req.remote_addr = "127.0.0.1";

  const int calls_before = w->ops.calls.load();
  const size_t sessions_before = w->sessions->Size();
  ts::HttpResponse res;
  w->impl->Handle(w->impl->Find(req), req, res);

  if (!kStatuses.count(res.status)) Fail("unexpected status " + std::to_string(res.status));
  if (w->ops.calls.load() != calls_before && ts::RequestToken(req) != w->session.token)
    Fail("a module call or the metrics without the session's token");
  for (const auto& hv : res.headers)
    if (HasBadByte(hv.first) || HasBadByte(hv.second))
      Fail("a header holds CR, LF or NUL: " + hv.first);
  if (HasBadByte(res.content_type)) Fail("the content type holds CR, LF or NUL");
  std::string file;
  if (w->impl->files.Resolve(req.path, &file) == ts::StaticFiles::Result::kFound &&
      file.compare(0, w->web.size() + 1, w->web + "/") != 0)
    Fail("a static path escapes the web folder: " + file);

  const bool login = req.path == "/api/auth/login" && req.method == "POST";
  if (login && res.status == 200) {
    Json::Value body;
    if (!ts::ParseJson(res.body, &body) || !body["data"]["token"].isString())
      Fail("a login answer without a token");
    w->sessions->Remove(body["data"]["token"].asString());
  } else if (w->sessions->Size() > sessions_before) {
    Fail("a session started without a successful login");
  }
  // Keep the session alive for the next input (a logout may have ended it).
  ts::SessionStore::Session s;
  if (!w->sessions->FindByToken(w->session.token, &s))
    w->sessions->Create("admin", "stamp", &w->session, "grant");
  return 0;
}
