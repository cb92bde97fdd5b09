// Fuzz target: API calls from raw bytes, through the envelope check, the
// parameter checker and the group module's methods, writes included, on a
// root that is put back before each input. After the calls the account files
// must still hold (FuzzRoot::CheckInvariants).
//
// Input forms:
//   {"api":..., "method":..., "params":...}        one call
//   [{...}, {...}, ...]                             up to 8 calls in order
//   BYTE PARAMS-JSON                                row BYTE of the module's table
//                                                   with PARAMS-JSON as parameters
#include <syslog.h>

#include <cstdint>
#include <string>
#include <vector>

#include "api/dispatch.h"
#include "api/json_util.h"
#include "api/module_loader.h"
#include "fuzz/fuzz_root.h"
#include "tavo/api.h"

extern "C" ApiTableRow* GetAPITable(void);

namespace {

struct State {
  tavo_fuzz::FuzzRoot root;
  tavo_server::ModuleSet modules;
  std::vector<ApiTableRow> rows;
};

State* Init() {
  auto* s = new State;
  for (ApiTableRow* r = GetAPITable(); r->api != nullptr; ++r) {
    s->rows.push_back(*r);
    if (!s->modules.Register(r->api, static_cast<int>(r->version), r->method, r->entry, "module")
             .ok())
      tavo_fuzz::Fail("cannot register the module's table");
  }
  return s;
}

void RunCall(State* s, const Json::Value& body) {
  tavo_server::ApiCall call;
  std::string error;
  if (!tavo_server::CallFromJson(body, &call, &error)) return;
  tavo_server::CallResult r = tavo_server::Dispatch(s->modules, call, "admin");
  if (r.lookup != tavo_server::ModuleSet::Lookup::kFound) return;
  const Json::Value& env = r.envelope;
  if (!env["success"].isBool()) tavo_fuzz::Fail("answer without a success flag");
  if (env["success"].asBool() != (r.code == 3200))
    tavo_fuzz::Fail("success flag and code disagree");
  // Nothing fails on purpose here: an unexpected error is a fault.
  if (r.code == 3299)
    tavo_fuzz::Fail(call.api + " " + call.method + " answered 3299 for " +
                    tavo_server::ToCompactJson(call.params));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The parameter checker logs every refusal at debug priority.
  setlogmask(LOG_UPTO(LOG_WARNING));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static State* s = Init();
  if (size == 0 || size > 4096) return -1;
  s->root.Reset();
  const std::string text(reinterpret_cast<const char*>(data), size);
  Json::Value doc;
  if (text[0] == '{' || text[0] == '[') {
    if (!tavo_server::ParseJson(text, &doc)) return 0;
    if (doc.isArray()) {
      for (Json::ArrayIndex i = 0; i < doc.size() && i < 8; ++i) RunCall(s, doc[i]);
    } else {
      RunCall(s, doc);
    }
  } else {
    const ApiTableRow& row = s->rows[data[0] % s->rows.size()];
    Json::Value params;
    if (!tavo_server::ParseJson(text.substr(1), &params)) return 0;
    Json::Value body(Json::objectValue);
    body["api"] = row.api;
    body["version"] = static_cast<int>(row.version);
    body["method"] = row.method;
    body["params"] = params;
    RunCall(s, body);
  }
  std::string why;
  if (!s->root.CheckInvariants(&why)) tavo_fuzz::Fail(why + "\ninput: " + text);
  return 0;
}
